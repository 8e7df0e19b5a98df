#!lua name=@KELVANE_LIBRARY@
--
-- library.lua -- the start of the server side of the kelvane operations:
-- one Redis Functions library, one function per operation, each atomic and
-- one round trip. The build joins this file and the others in this directory
-- (writes, relative writes, reads, removals) into one library, names it
-- kelvane_<digest of the joined source> and each function
-- <library>_<operation>, so builds with different functions never use or
-- replace each other's. docs/data-layout.md describes the keys.
--
-- KEYS[1] is the main key: a sorted set (for kv_sadd a plain set); KEYS[2]
-- the values hash, member -> value, except while a slot migrates
-- (values_key()). Writes take the time-to-live first: the seconds, then "1"
-- when committed. Scores arrive as %.17g text and leave as Redis's own text
-- of a stored score (exact) or through score_text(), never through Lua's
-- number-to-text (14 digits). Replies are arrays whose first element is the
-- status, numbered as in the client header, and whose last is the tag the
-- client sent with the call (register, below).
--
-- A server command costs about as much inside a function as a native one,
-- and FCALL itself about three, so each function makes as few as it can:
-- the first command on a key goes through redis.pcall and doubles as the
-- check of its kind, and expiry work runs only where the time-to-live rule
-- changes something. No function writes before it has checked every key it
-- will touch, so a key of the wrong kind (the values hash included) answers
-- WRONG_REPLY and leaves everything as it was.

local LIBRARY = '@KELVANE_LIBRARY@'

local SUCCESS, WRONG_REPLY, ALREADY_EXISTS = 0, 10, 12
local NOTFOUND, INVALID_PARAMETER, NO_SET_KEY = 13, 15, 17

-- Lua 5.1 unpack() stops near 8000 values (the C stack), so commands built
-- from long lists go in slices of this many arguments; even, so that pairs
-- never straddle two slices.
local SLICE = 4000

-- What a write leaves of the values hash, for the time-to-live rule.
local VALUES_NONE = 0  -- there is none
local VALUES_KEPT = 1  -- any there is existed before, with the main key's expiry
local VALUES_MADE = 2  -- this call may have created it, without an expiry

local function score_text(x)
  return string.format('%.17g', x)
end

-- The answer to a failed first command: a key of the wrong kind is the
-- caller's WRONG_REPLY; any other error reaches the client as itself.
local function refused(err)
  if string.sub(err.err, 1, 9) == 'WRONGTYPE' then return { WRONG_REPLY } end
  return err
end

-- Runs `command key list[first..last]` in slices and sums the integer
-- replies. The first slice goes through pcall, so a key of the wrong kind
-- comes back as the error before anything was written.
local function sliced(command, key, list, first, last)
  local total, call = 0, redis.pcall
  for i = first, last, SLICE do
    local reply = call(command, key, unpack(list, i, math.min(i + SLICE - 1, last)))
    if type(reply) ~= 'number' then return reply end
    total, call = total + reply, redis.call
  end
  return total
end

-- Whether an add of n members (names at list[first..last], one every step,
-- maybe repeated) to a set that existed met one already there: ZADD then
-- added fewer than the distinct names.
local function met_existing(added, n, list, first, last, step)
  if added == n then return false end
  if added == 0 then return true end
  local seen, distinct = {}, 0
  for i = first, last, step do
    if not seen[list[i]] then
      seen[list[i]], distinct = true, distinct + 1
    end
  end
  return added < distinct
end

-- The values hash of a call's key, or nil where there is none to touch.
-- A call declares both server keys, so that a cluster refuses it while a
-- slot migration has moved one of them and not yet the other. Where the
-- client found that the values hash does not exist at all, it declares the
-- main key alone: the hash is then named after it, and a node that may not
-- touch it (the migrating node, which no longer holds it) answers an error
-- for it, which means that there is no values hash.
local function values_key(keys)
  if keys[2] then return keys[2] end
  local name = keys[1] .. ':v'
  if type(redis.pcall('EXISTS', name)) == 'number' then return name end
  return nil
end

-- The answer of a write that would make the values hash where there is
-- none to touch: while the slot migrates only the importing node makes
-- keys, so the call waits until the main key has moved there.
local function values_elsewhere()
  return redis.error_reply('TRYAGAIN the values hash can be made once the key has moved')
end

-- The state of a values hash that a call touches only to move its expiry,
-- or nil for a key of another kind, which is not ours to touch.
local function values_state(vals)
  if not vals then return VALUES_NONE end
  local kind = redis.call('TYPE', vals)['ok']
  if kind == 'none' then return VALUES_NONE end
  if kind == 'hash' then return VALUES_KEPT end
end

-- A key this call creates owns no values yet. A values hash left behind (its
-- set evicted on a full server, say) goes, so that no new member inherits a
-- value; with a key of another kind there the call must stop (false).
-- state: what values_state() said, when the caller asked already.
local function clear_left_values(vals, state)
  state = state or values_state(vals)
  if state == VALUES_KEPT then redis.call('DEL', vals) end
  return state ~= nil
end

-- The time-to-live rule shared by every write: a write that created the key
-- gives it the time-to-live; on a key that existed only a committed one
-- replaces it (0: no expiry). The values hash expires in the same
-- millisecond as the main key: it takes the main key's absolute expiry.
local function apply_ttl(main, vals, existed, args, values)
  if not vals then values = VALUES_NONE end
  if existed and args[2] ~= '1' then
    if values == VALUES_MADE then
      local at = redis.call('PEXPIRETIME', main)
      if at > 0 then redis.call('PEXPIREAT', vals, at) end
    end
    return
  end
  local seconds = tonumber(args[1])
  if seconds > 0 then
    redis.call('EXPIRE', main, seconds)
    if values ~= VALUES_NONE then redis.call('PEXPIREAT', vals, redis.call('PEXPIRETIME', main)) end
  elseif existed then
    redis.call('PERSIST', main)
    if values ~= VALUES_NONE then redis.call('PERSIST', vals) end
  end
end

-- Writes carry no flag, so a server at maxmemory refuses them before they
-- run. Reads write nothing; removals only ever shrink the data, so they run
-- on a full server too.
--
-- Every function takes one argument more than its own, last: a tag the
-- client chose for the call, which the reply carries back as its last
-- element (error replies carry none). A reply that ends with another tag is
-- another call's, left in the stream by a server that answered twice, and
-- the client drops the connection instead of believing it.
local function register(op, callback, flags)
  local function tagged(keys, args)
    local tag = table.remove(args)
    local reply = callback(keys, args)
    if reply.err == nil then reply[#reply + 1] = tag end
    return reply
  end
  redis.register_function{ function_name = LIBRARY .. '_' .. op, callback = tagged, flags = flags }
end

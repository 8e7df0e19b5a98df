#!lua name=@KELVANE_LIBRARY@
--
-- kelvane.lua -- the server side of the kelvane operations: one Redis
-- Functions library, one function per operation, each atomic and one round
-- trip. docs/data-layout.md describes the keys. The build names the library
-- kelvane_<digest of this file> and each function <library>_<operation>, so
-- builds with different functions never use or replace each other's.
--
-- KEYS[1] is the main key: a sorted set (for kv_sadd a plain set); KEYS[2]
-- the values hash, member -> value. Writes take the time-to-live first: the
-- seconds, then "1" when committed. Scores arrive as %.17g text and leave as
-- Redis's own text of a stored score (exact) or through score_text(), never
-- through Lua's number-to-text (14 digits). Replies are arrays whose first
-- element is the status, numbered as in the client header.
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

-- Whether an add of n members (names at list[first], one every step, maybe
-- repeated) to a set that existed met one already there: ZADD then added
-- fewer than the distinct names.
local function met_existing(added, n, list, first, step)
  if added == n then return false end
  if added == 0 then return true end
  local seen, distinct = {}, 0
  for i = first, #list, step do
    if not seen[list[i]] then
      seen[list[i]], distinct = true, distinct + 1
    end
  end
  return added < distinct
end

-- The state of a values hash that a call touches only to move its expiry,
-- or nil for a key of another kind, which is not ours to touch.
local function values_state(vals)
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

-- kv_sadd: ttl, commit, member. A plain set owns no values hash.
local function sadd(keys, args)
  local main = keys[1]
  local added = redis.pcall('SADD', main, args[3])
  if type(added) ~= 'number' then return refused(added) end
  -- Only a member new to the set can mean a new set, and then it is alone.
  local created = added == 1 and args[1] ~= '0' and redis.call('SCARD', main) == 1
  if created or args[2] == '1' then apply_ttl(main, nil, not created, args, VALUES_NONE) end
  return { added == 1 and SUCCESS or ALREADY_EXISTS }
end

-- kv_zadd and kv_zmadd: ttl, commit, "0", then score, member per member.
-- A member is in the values hash only while it is in the set, so a new
-- member has no value and an add without values leaves the hash alone.
local function zadd_plain(main, vals, args)
  local commit, state = args[2] == '1', nil
  if commit then
    -- A committed time-to-live moves the values hash's expiry too.
    state = values_state(vals)
    if state == nil then return { WRONG_REPLY } end
  end
  local last = #args
  local added = last == 5 and redis.pcall('ZADD', main, args[4], args[5]) or sliced('ZADD', main, args, 4, last)
  if type(added) ~= 'number' then return refused(added) end
  -- ZADD never removes, so the set existed unless it holds just what came.
  if added == 0 or redis.call('ZCARD', main) > added then
    if commit then apply_ttl(main, vals, true, args, state) end
    return { met_existing(added, (last - 3) / 2, args, 5, 2) and ALREADY_EXISTS or SUCCESS }
  end
  if not clear_left_values(vals, state) then
    -- The set is this call's own: deleting it leaves the key as it was.
    redis.call('DEL', main)
    return { WRONG_REPLY }
  end
  apply_ttl(main, vals, false, args, VALUES_NONE)
  return { SUCCESS }
end

-- kv_zaddval and kv_zmaddval: ttl, commit, "1", then score, member, value
-- per member. The values go first: HSET checks the hash's kind before
-- either key is written.
local function zadd_values(main, vals, args)
  local card = redis.pcall('ZCARD', main)
  if type(card) ~= 'number' then return refused(card) end
  if card == 0 and not clear_left_values(vals) then return { WRONG_REPLY } end
  local last, made, added = #args, nil, nil
  if last == 6 then
    made = redis.pcall('HSET', vals, args[5], args[6])
    if type(made) ~= 'number' then return refused(made) end
    added = redis.call('ZADD', main, args[4], args[5])
  else
    local scored, fields, k = {}, {}, 0
    for i = 4, last, 3 do
      scored[k + 1], scored[k + 2] = args[i], args[i + 1]
      fields[k + 1], fields[k + 2] = args[i + 1], args[i + 2]
      k = k + 2
    end
    made = sliced('HSET', vals, fields, 1, k)
    if type(made) ~= 'number' then return refused(made) end
    added = sliced('ZADD', main, scored, 1, k)
  end
  local existed = card > 0
  -- New fields may mean a new hash, which must take the set's expiry.
  if made > 0 or not existed or args[2] == '1' then
    apply_ttl(main, vals, existed, args, made > 0 and VALUES_MADE or VALUES_KEPT)
  end
  if existed and met_existing(added, (last - 3) / 3, args, 5, 3) then return { ALREADY_EXISTS } end
  return { SUCCESS }
end

-- kv_zadd, kv_zaddval, kv_zmadd, kv_zmaddval:
-- ttl, commit, with_values ("1"/"0"), then per member: score, member[, value].
-- A member that existed before the call makes the status ALREADY_EXISTS; it
-- keeps its value unless the call gives one.
local function zadd(keys, args)
  if args[3] == '1' then return zadd_values(keys[1], keys[2], args) end
  return zadd_plain(keys[1], keys[2], args)
end

-- The highest score plus increment and whether the set exists, for the
-- writes that go past the highest score; or the reply that ends the call (a
-- key of another kind, a sum that is not a number). Of equal highest scores
-- ZRANGE names the last member in byte order; Redis keeps no empty sorted
-- set, so an empty reply means no key.
local function past_top(main, increment)
  local top = redis.pcall('ZRANGE', main, -1, -1, 'WITHSCORES')
  if top.err then return nil, nil, refused(top) end
  local score = (#top > 0 and tonumber(top[2]) or 0) + increment
  if score ~= score then return nil, nil, { INVALID_PARAMETER } end
  return score, #top > 0
end

-- The decimal name of a score: whole numbers as integers, in full however
-- large ("100000000000000000", never "1e+17"; 0 for -0 too), others in the
-- shortest form that reads back as the same double ("3.5").
local function score_name(x)
  if x == 0 then return '0' end
  if x == math.floor(x) then return string.format('%.0f', x) end
  for digits = 1, 17 do
    local text = string.format('%.' .. digits .. 'g', x)
    if tonumber(text) == x then return text end
  end
  return score_text(x)
end

-- kv_zaddvalmax: ttl, commit, member, value, increment
local function zaddvalmax(keys, args)
  local main, vals, member = keys[1], keys[2], args[3]
  local score, existed, stop = past_top(main, tonumber(args[5]))
  if stop then return stop end
  if not existed and not clear_left_values(vals) then return { WRONG_REPLY } end
  local made = redis.pcall('HSET', vals, member, args[4])
  if type(made) ~= 'number' then return refused(made) end
  local added = redis.call('ZADD', main, score_text(score), member)
  apply_ttl(main, vals, existed, args, made > 0 and VALUES_MADE or VALUES_KEPT)
  return { added == 1 and SUCCESS or ALREADY_EXISTS }
end

-- kv_zaddmaxinc: ttl, commit, increment
-- A member already named by the new score takes it and loses its value.
local function zaddmaxinc(keys, args)
  local main, vals = keys[1], keys[2]
  local score, existed, stop = past_top(main, tonumber(args[3]))
  if stop then return stop end
  local member = score_name(score)
  if existed then
    -- A member not in the set has no value: this drops one only where the
    -- member is there already.
    local dropped = redis.pcall('HDEL', vals, member)
    if type(dropped) ~= 'number' then return refused(dropped) end
  elseif not clear_left_values(vals) then
    return { WRONG_REPLY }
  end
  local added = redis.call('ZADD', main, score_text(score), member)
  apply_ttl(main, vals, existed, args, existed and VALUES_KEPT or VALUES_NONE)
  return { added == 1 and SUCCESS or ALREADY_EXISTS, member }
end

-- kv_zadddis beyond the drift, on a set that exists: the set starts again
-- from the new member alone. The key never empties on the way, so it keeps
-- its expiry without being told.
local function restart(main, vals, args)
  local had_values = redis.pcall('HLEN', vals)
  if type(had_values) ~= 'number' then return refused(had_values) end
  local member = args[4]
  local added = redis.call('ZADD', main, args[3], member)
  if tonumber(args[5]) >= 0 then
    -- Beyond a drift of zero or more the new score is above every other:
    -- the member ranks last and everything before it goes.
    redis.call('ZREMRANGEBYRANK', main, 0, -2)
  else
    local rank = redis.call('ZRANK', main, member)
    redis.call('ZREMRANGEBYRANK', main, rank + 1, -1)
    if rank > 0 then redis.call('ZREMRANGEBYRANK', main, 0, rank - 1) end
  end
  if had_values > 0 then redis.call('DEL', vals) end
  apply_ttl(main, vals, true, args, VALUES_NONE)
  return { added == 1 and SUCCESS or ALREADY_EXISTS, false }
end

-- kv_zadddis: ttl, commit, score, member, drift
-- Beyond the drift the set starts again from the new member alone; within
-- it (the boundary included) the member holding the highest score moves to
-- the new score and loses its value, and its name goes back to the caller.
local function zadddis(keys, args)
  local main, vals = keys[1], keys[2]
  local top = redis.pcall('ZRANGE', main, -1, -1, 'WITHSCORES')
  if top.err then return refused(top) end
  if #top == 0 then
    if not clear_left_values(vals) then return { WRONG_REPLY } end
    redis.call('ZADD', main, args[3], args[4])
    apply_ttl(main, vals, false, args, VALUES_NONE)
    return { SUCCESS, false }
  end
  if tonumber(args[3]) - tonumber(top[2]) > tonumber(args[5]) then return restart(main, vals, args) end
  local holder = top[1]
  local dropped = redis.pcall('HDEL', vals, holder)
  if type(dropped) ~= 'number' then return refused(dropped) end
  redis.call('ZADD', main, args[3], holder)
  apply_ttl(main, vals, true, args, VALUES_KEPT)
  return { SUCCESS, holder }
end

-- kv_zincrby: ttl, commit, member, increment
-- The new score leaves as ZINCRBY's own text of it.
local function zincrby(keys, args)
  local main, vals = keys[1], keys[2]
  local card = redis.pcall('ZCARD', main)
  if type(card) ~= 'number' then return refused(card) end
  local existed, commit, state = card > 0, args[2] == '1', VALUES_KEPT
  if not existed then
    if not clear_left_values(vals) then return { WRONG_REPLY } end
    state = VALUES_NONE
  elseif commit then
    -- A committed time-to-live moves the values hash's expiry too.
    state = values_state(vals)
    if state == nil then return { WRONG_REPLY } end
  end
  -- ZINCRBY refuses a sum that is not a number (inf + -inf, on a member
  -- that exists) and leaves the set as it was.
  local new = redis.pcall('ZINCRBY', main, args[4], args[3])
  if type(new) == 'table' then return { INVALID_PARAMETER } end
  if commit or not existed then apply_ttl(main, vals, existed, args, state) end
  return { SUCCESS, new }
end

-- The answer to a read that found nothing: NOTFOUND for an absent key,
-- else `status`.
local function absent_or(main, status)
  if redis.call('EXISTS', main) == 0 then return { NOTFOUND } end
  return { status }
end

-- kv_zscore: member
local function zscore(keys, args)
  local score = redis.pcall('ZSCORE', keys[1], args[1])
  if type(score) ~= 'string' then return score and refused(score) or absent_or(keys[1], NO_SET_KEY) end
  local value = redis.pcall('HGET', keys[2], args[1])
  if type(value) == 'table' then return refused(value) end
  return { SUCCESS, score, value }
end

-- kv_zrank: member, reverse, with_values
local function zrank(keys, args)
  local rank = redis.pcall(args[2] == '1' and 'ZREVRANK' or 'ZRANK', keys[1], args[1])
  if type(rank) ~= 'number' then return rank and refused(rank) or absent_or(keys[1], NO_SET_KEY) end
  local value = false
  if args[3] == '1' then
    value = redis.pcall('HGET', keys[2], args[1])
    if type(value) == 'table' then return refused(value) end
  end
  return { SUCCESS, rank, value }
end

-- kv_zcard and kv_zcount: [min, max]. An absent key counts as empty.
local function zcount(keys, args)
  local n = #args == 0 and redis.pcall('ZCARD', keys[1]) or redis.pcall('ZCOUNT', keys[1], args[1], args[2])
  if type(n) ~= 'number' then return refused(n) end
  return { SUCCESS, n }
end

-- The values of the members of a ZRANGE reply (one member every `step`
-- items), false for a member without one, or the error for a values hash of
-- another kind.
local function values_of(vals, items, step)
  local members, count = items, #items / step
  if step == 2 then
    members = {}
    for i = 1, count do members[i] = items[2 * i - 1] end
  end
  if count <= SLICE then return redis.pcall('HMGET', vals, unpack(members)) end
  local values = {}
  for first = 1, count, SLICE do
    local got = redis.pcall('HMGET', vals, unpack(members, first, math.min(first + SLICE - 1, count)))
    if got.err then return got end
    for i = 1, #got do values[first + i - 1] = got[i] end
  end
  return values
end

-- kv_zrange and kv_zrangebyscore:
-- by_score, low, high, reverse, with_scores, with_values, offset, count.
-- By rank, low and high are the start and stop ranks; by score they are the
-- inclusive bounds and offset/count slice the selection (offset "" for no
-- limit). The reply is the status, ZRANGE's own reply (member, score pairs
-- when scores were asked for, else members) and the members' values in the
-- same order (false for a member without one; empty unless asked for).
local function zrange(keys, args)
  local by_score, reverse, with_scores = args[1] == '1', args[4] == '1', args[5] == '1'
  local command = { 'ZRANGE', keys[1], args[2], args[3] }
  if by_score then
    -- ZRANGE ... BYSCORE REV takes the bounds high first.
    if reverse then command[3], command[4] = args[3], args[2] end
    command[5] = 'BYSCORE'
  end
  if reverse then command[#command + 1] = 'REV' end
  if by_score and args[7] ~= '' then
    local k = #command
    command[k + 1], command[k + 2], command[k + 3] = 'LIMIT', args[7], args[8]
  end
  if with_scores then command[#command + 1] = 'WITHSCORES' end
  local items = redis.pcall(unpack(command))
  if items.err then return refused(items) end
  if #items == 0 then
    if redis.call('EXISTS', keys[1]) == 0 then return { NOTFOUND } end
    return { SUCCESS, items, {} }
  end
  local values = {}
  if args[6] == '1' then
    values = values_of(keys[2], items, with_scores and 2 or 1)
    if values.err then return refused(values) end
  end
  return { SUCCESS, items, values }
end

-- kv_zrem and kv_zmrem: members...
-- The values go first: HDEL checks the hash's kind before either key is
-- written. A removal that empties the set (which Redis then deletes) takes
-- the values hash with it.
local function zrem(keys, args)
  local main, vals, last = keys[1], keys[2], #args
  local card = redis.pcall('ZCARD', main)
  if type(card) ~= 'number' then return refused(card) end
  if card == 0 then return { NOTFOUND, 0 } end
  -- (and/or: a number or an error table is never false)
  local dropped = last == 1 and redis.pcall('HDEL', vals, args[1]) or sliced('HDEL', vals, args, 1, last)
  if type(dropped) ~= 'number' then return refused(dropped) end
  local removed = last == 1 and redis.call('ZREM', main, args[1]) or sliced('ZREM', main, args, 1, last)
  if removed == card then redis.call('DEL', vals) end
  return { removed > 0 and SUCCESS or NOTFOUND, removed }
end

-- kv_zremrangebyscore and kv_zremrangebyrank: by_score, low, high.
-- An absent key counts as an empty set.
local function zremrange(keys, args)
  local main, vals, by_score = keys[1], keys[2], args[1] == '1'
  local remove = by_score and 'ZREMRANGEBYSCORE' or 'ZREMRANGEBYRANK'
  local kind = values_state(vals)
  if kind == nil then return { WRONG_REPLY } end
  if kind == VALUES_NONE then
    -- No values to drop with the members: the native removal is all of it.
    local removed = redis.pcall(remove, main, args[2], args[3])
    if type(removed) ~= 'number' then return refused(removed) end
    return { SUCCESS, removed }
  end
  local members = by_score and redis.pcall('ZRANGE', main, args[2], args[3], 'BYSCORE')
    or redis.pcall('ZRANGE', main, args[2], args[3])
  if members.err then return refused(members) end
  if #members == 0 then return { SUCCESS, 0 } end
  local dropped = sliced('HDEL', vals, members, 1, #members)
  if type(dropped) ~= 'number' then return refused(dropped) end
  -- The same selection as the ZRANGE above: nothing ran in between.
  local removed = redis.call(remove, main, args[2], args[3])
  if redis.call('EXISTS', main) == 0 then redis.call('DEL', vals) end
  return { SUCCESS, removed }
end

-- Writes carry no flag, so a server at maxmemory refuses them before they
-- run. Reads write nothing; removals only ever shrink the data, so they run
-- on a full server too.
local function register(op, callback, flags)
  redis.register_function{ function_name = LIBRARY .. '_' .. op, callback = callback, flags = flags }
end
register('sadd', sadd)
register('zadd', zadd)
register('zaddvalmax', zaddvalmax)
register('zaddmaxinc', zaddmaxinc)
register('zadddis', zadddis)
register('zincrby', zincrby)
register('zscore', zscore, { 'no-writes' })
register('zrank', zrank, { 'no-writes' })
register('zcount', zcount, { 'no-writes' })
register('zrange', zrange, { 'no-writes' })
register('zrem', zrem, { 'allow-oom' })
register('zremrange', zremrange, { 'allow-oom' })

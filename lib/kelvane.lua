#!lua name=@KELVANE_LIBRARY@
--
-- kelvane.lua -- the server side of every kelvane operation that reads and
-- writes, or needs more than one command. Each function runs atomically in
-- the server, so a call costs one round trip and concurrent clients never see
-- half of an operation. docs/data-layout.md describes the keys.
--
-- The build names the library kelvane_<version>, the version being a digest
-- of this file, and every function is registered under that name plus "_"
-- and its operation (kelvane_<version>_zadd), so builds with different
-- functions never use or replace each other's.
--
-- Calling convention:
--   KEYS[1]  the kelvane key's main key: a sorted set (or, for kv_sadd, a
--            plain set) whose Redis type is the kelvane kind of the key;
--   KEYS[2]  its values hash, member -> value, only for members that have one.
-- Writes take the time-to-live as their first two arguments: the seconds and
-- "1" when the caller committed them. Scores arrive and leave as text with 17
-- significant digits; Lua's own number-to-text keeps only 14, so every score
-- that leaves goes through score_text(). Replies are arrays whose first
-- element is the status, numbered as in the client header.

local LIBRARY = '@KELVANE_LIBRARY@'

local SUCCESS = 0
local WRONG_REPLY = 10
local ALREADY_EXISTS = 12
local NOTFOUND = 13
local INVALID_PARAMETER = 15
local NO_SET_KEY = 17

-- Lua 5.1 unpack() is bounded by the C stack; commands built from long
-- member lists are sent in slices of this many arguments.
local SLICE = 512

local function score_text(x)
  return string.format('%.17g', x)
end

local function kind_of(key)
  return redis.call('TYPE', key)['ok']
end

-- The values hash expires with the main key, to the millisecond, and goes
-- when the main key has gone (a removal that emptied the set).
local function sync_values(main, vals)
  if redis.call('EXISTS', main) == 0 then
    redis.call('DEL', vals)
    return
  end
  if redis.call('EXISTS', vals) == 0 then
    return
  end
  local at = redis.call('PEXPIRETIME', main)
  if at > 0 then
    redis.call('PEXPIREAT', vals, at)
  else
    redis.call('PERSIST', vals)
  end
end

-- The time-to-live rule shared by every write: a write that created the key
-- gives it the time-to-live; on a key that existed only a committed one
-- replaces it. 0 means no expiry (PERSIST is a no-op on a new key).
local function apply_ttl(main, vals, existed, seconds, commit)
  if (commit or not existed) and redis.call('EXISTS', main) == 1 then
    if seconds > 0 then
      redis.call('EXPIRE', main, seconds)
    else
      redis.call('PERSIST', main)
    end
  end
  sync_values(main, vals)
end

-- Opens a sorted-set write: returns whether the key existed, or nil when it
-- holds another kind. A key that did not exist cannot own a values hash;
-- one left behind by outside hands is cleared so it cannot leak in.
local function open_zset_write(main, vals)
  local kind = kind_of(main)
  if kind == 'zset' then
    return true
  elseif kind == 'none' then
    redis.call('DEL', vals)
    return false
  end
  return nil
end

-- Makes a sorted-set write out of its core: checks the key's kind, runs
-- body(main, vals, existed, args) and, when the write landed, applies the
-- time-to-live rule with args[1] and args[2]. body returns the reply.
local function zset_write(body)
  return function(keys, args)
    local main, vals = keys[1], keys[2]
    local existed = open_zset_write(main, vals)
    if existed == nil then
      return { WRONG_REPLY }
    end
    local reply = body(main, vals, existed, args)
    if reply[1] == SUCCESS or reply[1] == ALREADY_EXISTS then
      apply_ttl(main, vals, existed, tonumber(args[1]), args[2] == '1')
    end
    return reply
  end
end

local function values_of(vals, members)
  local out = {}
  if redis.call('EXISTS', vals) == 0 then
    for i = 1, #members do
      out[i] = false
    end
    return out
  end
  for first = 1, #members, SLICE do
    local last = math.min(first + SLICE - 1, #members)
    local got = redis.call('HMGET', vals, unpack(members, first, last))
    for i = first, last do
      out[i] = got[i - first + 1]
    end
  end
  return out
end

local function remove_members(main, vals, members)
  local removed = 0
  for first = 1, #members, SLICE do
    local last = math.min(first + SLICE - 1, #members)
    removed = removed + redis.call('ZREM', main, unpack(members, first, last))
    if redis.call('EXISTS', vals) == 1 then
      redis.call('HDEL', vals, unpack(members, first, last))
    end
  end
  return removed
end

-- The highest score and the member that holds it (of equal scores, the
-- last in byte order), or nil for an empty set.
local function top_of(main)
  local top = redis.call('ZRANGE', main, -1, -1, 'WITHSCORES')
  if #top == 0 then
    return nil, nil
  end
  return tonumber(top[2]), top[1]
end

-- The decimal name of a score: whole numbers as integers, in full however
-- large ("100000000000000000", never "1e+17"; 0 for -0 too), others in the
-- shortest form that reads back as the same double ("3.5").
local function score_name(x)
  if x == 0 then
    return '0'
  end
  if x == math.floor(x) then
    return string.format('%.0f', x)
  end
  for digits = 1, 17 do
    local text = string.format('%.' .. digits .. 'g', x)
    if tonumber(text) == x then
      return text
    end
  end
  return score_text(x)
end

-- kv_sadd: ttl, commit, member
local function sadd(keys, args)
  local main, vals = keys[1], keys[2]
  local kind = kind_of(main)
  if kind ~= 'none' and kind ~= 'set' then
    return { WRONG_REPLY }
  end
  local added = redis.call('SADD', main, args[3])
  apply_ttl(main, vals, kind == 'set', tonumber(args[1]), args[2] == '1')
  return { added == 1 and SUCCESS or ALREADY_EXISTS }
end

-- kv_zadd, kv_zaddval, kv_zmadd, kv_zmaddval:
-- ttl, commit, with_values ("1"/"0"), then per member: score, member[, value].
-- A member that existed before the call makes the status ALREADY_EXISTS; it
-- keeps its value unless the call gives one. A member is in the values hash
-- only while it is in the set (every removal path clears its value), so a
-- new member never inherits one.
local function zadd(main, vals, existed, args)
  local with_values = args[3] == '1'
  local step = with_values and 3 or 2
  local status = SUCCESS
  if existed then
    for i = 4, #args, step do
      if redis.call('ZSCORE', main, args[i + 1]) then
        status = ALREADY_EXISTS
        break
      end
    end
  end
  for i = 4, #args, step do
    local member = args[i + 1]
    redis.call('ZADD', main, args[i], member)
    if with_values then
      redis.call('HSET', vals, member, args[i + 2])
    end
  end
  return { status }
end

-- kv_zaddvalmax: ttl, commit, member, value, increment
local function zaddvalmax(main, vals, existed, args)
  local member = args[3]
  local max = top_of(main)
  local score = (max or 0) + tonumber(args[5])
  if score ~= score then
    return { INVALID_PARAMETER }
  end
  local added = redis.call('ZADD', main, score_text(score), member)
  redis.call('HSET', vals, member, args[4])
  return { added == 1 and SUCCESS or ALREADY_EXISTS }
end

-- kv_zaddmaxinc: ttl, commit, increment
local function zaddmaxinc(main, vals, existed, args)
  local max = top_of(main)
  local score = (max or 0) + tonumber(args[3])
  if score ~= score then
    return { INVALID_PARAMETER }
  end
  local member = score_name(score)
  local added = redis.call('ZADD', main, score_text(score), member)
  if added == 0 then
    redis.call('HDEL', vals, member)
  end
  return { added == 1 and SUCCESS or ALREADY_EXISTS, member }
end

-- kv_zadddis: ttl, commit, score, member, drift
-- Beyond the drift the set starts again from the new member alone; within
-- it (the boundary included) the member holding the highest score moves to
-- the new score and its name goes back to the caller.
local function zadddis(main, vals, existed, args)
  local score, member, drift = tonumber(args[3]), args[4], tonumber(args[5])
  local max, holder = top_of(main)
  if max ~= nil and not (score - max > drift) then
    redis.call('ZADD', main, args[3], holder)
    redis.call('HDEL', vals, holder)
    return { SUCCESS, holder }
  end
  local was_member = existed and redis.call('ZSCORE', main, member) ~= false
  -- Starting again must not reset the key's expiry: only the rule decides.
  local expires_at = existed and redis.call('PEXPIRETIME', main) or -1
  redis.call('DEL', main, vals)
  redis.call('ZADD', main, args[3], member)
  if expires_at > 0 then
    redis.call('PEXPIREAT', main, expires_at)
  end
  return { was_member and ALREADY_EXISTS or SUCCESS, false }
end

-- kv_zincrby: ttl, commit, member, increment
local function zincrby(main, vals, existed, args)
  -- ZINCRBY refuses a sum that is not a number and leaves the set as it was.
  local new = redis.pcall('ZINCRBY', main, args[4], args[3])
  if type(new) == 'table' and new.err then
    return { INVALID_PARAMETER }
  end
  return { SUCCESS, new }
end

-- Makes a sorted-set read or removal out of its core: a key of another kind
-- answers WRONG_REPLY, an absent key answers `absent`, and a sorted set goes
-- to body(main, vals, args).
local function on_zset(absent, body)
  return function(keys, args)
    local kind = kind_of(keys[1])
    if kind == 'none' then
      return absent
    elseif kind ~= 'zset' then
      return { WRONG_REPLY }
    end
    return body(keys[1], keys[2], args)
  end
end

-- kv_zscore: member
local function zscore(main, vals, args)
  local score = redis.call('ZSCORE', main, args[1])
  if not score then
    return { NO_SET_KEY }
  end
  return { SUCCESS, score, redis.call('HGET', vals, args[1]) }
end

-- kv_zrank: member, reverse, with_values
local function zrank(main, vals, args)
  local rank = redis.call(args[2] == '1' and 'ZREVRANK' or 'ZRANK', main, args[1])
  if not rank then
    return { NO_SET_KEY }
  end
  local value = false
  if args[3] == '1' then
    value = redis.call('HGET', vals, args[1])
  end
  return { SUCCESS, rank, value }
end

-- kv_zcard and kv_zcount: [min, max].
local function zcount(main, vals, args)
  if #args == 0 then
    return { SUCCESS, redis.call('ZCARD', main) }
  end
  return { SUCCESS, redis.call('ZCOUNT', main, args[1], args[2]) }
end

-- kv_zrange and kv_zrangebyscore:
-- by_score, low, high, reverse, with_scores, with_values, offset, count.
-- By rank, low and high are the start and stop ranks; by score they are the
-- inclusive bounds and offset/count slice the selection (offset "" for no
-- limit). The reply is status, the range as the server gives it (member,
-- score pairs when scores were asked for, members alone otherwise) and the
-- values (false for a member without one; empty unless asked for).
local function zrange(main, vals, args)
  local by_score, reverse = args[1] == '1', args[4] == '1'
  local with_scores, with_values = args[5] == '1', args[6] == '1'
  local command = { 'ZRANGE', main }
  if by_score and reverse then
    -- ZRANGE ... BYSCORE REV takes the bounds high first.
    table.insert(command, args[3])
    table.insert(command, args[2])
  else
    table.insert(command, args[2])
    table.insert(command, args[3])
  end
  if by_score then
    table.insert(command, 'BYSCORE')
  end
  if reverse then
    table.insert(command, 'REV')
  end
  if by_score and args[7] ~= '' then
    table.insert(command, 'LIMIT')
    table.insert(command, args[7])
    table.insert(command, args[8])
  end
  if with_scores then
    table.insert(command, 'WITHSCORES')
  end
  local items = redis.call(unpack(command))
  local values = {}
  if with_values then
    local members = items
    if with_scores then
      members = {}
      for i = 1, #items, 2 do
        members[#members + 1] = items[i]
      end
    end
    values = values_of(vals, members)
  end
  return { SUCCESS, items, values }
end

-- kv_zrem and kv_zmrem: members...
local function zrem(main, vals, args)
  local removed = remove_members(main, vals, args)
  sync_values(main, vals)
  return { removed > 0 and SUCCESS or NOTFOUND, removed }
end

-- kv_zremrangebyscore and kv_zremrangebyrank: by_score, low, high.
local function zremrange(main, vals, args)
  local members
  if args[1] == '1' then
    members = redis.call('ZRANGE', main, args[2], args[3], 'BYSCORE')
  else
    members = redis.call('ZRANGE', main, args[2], args[3])
  end
  local removed = remove_members(main, vals, members)
  sync_values(main, vals)
  return { SUCCESS, removed }
end

redis.register_function(LIBRARY .. '_sadd', sadd)
redis.register_function(LIBRARY .. '_zadd', zset_write(zadd))
redis.register_function(LIBRARY .. '_zaddvalmax', zset_write(zaddvalmax))
redis.register_function(LIBRARY .. '_zaddmaxinc', zset_write(zaddmaxinc))
redis.register_function(LIBRARY .. '_zadddis', zset_write(zadddis))
redis.register_function(LIBRARY .. '_zincrby', zset_write(zincrby))
-- An absent key counts as an empty set for counting and range removals.
local function read_only(name, callback)
  redis.register_function{ function_name = name, callback = callback, flags = { 'no-writes' } }
end
read_only(LIBRARY .. '_zscore', on_zset({ NOTFOUND }, zscore))
read_only(LIBRARY .. '_zrank', on_zset({ NOTFOUND }, zrank))
read_only(LIBRARY .. '_zcount', on_zset({ SUCCESS, 0 }, zcount))
read_only(LIBRARY .. '_zrange', on_zset({ NOTFOUND }, zrange))
redis.register_function(LIBRARY .. '_zrem', on_zset({ NOTFOUND, 0 }, zrem))
redis.register_function(LIBRARY .. '_zremrange', on_zset({ SUCCESS, 0 }, zremrange))

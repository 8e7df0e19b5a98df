-- reads.lua -- the reads: kv_zscore, kv_zrank, kv_zcard and kv_zcount,
-- and the range reads. They write nothing (no-writes), so they also run on
-- a full server.

-- The answer to a read that found nothing: NOTFOUND for an absent key,
-- else `status`.
local function absent_or(main, status)
  if redis.call('EXISTS', main) == 0 then return { NOTFOUND } end
  return { status }
end

-- A member's value, false for none, or the error for a values hash of
-- another kind.
local function value_of(keys, member)
  local vals = values_key(keys)
  return vals and redis.pcall('HGET', vals, member) or false
end

-- kv_zscore: member
local function zscore(keys, args)
  local score = redis.pcall('ZSCORE', keys[1], args[1])
  if type(score) ~= 'string' then return score and refused(score) or absent_or(keys[1], NO_SET_KEY) end
  local value = value_of(keys, args[1])
  if type(value) == 'table' then return refused(value) end
  return { SUCCESS, score, value }
end

-- kv_zrank: member, reverse, with_values
local function zrank(keys, args)
  local rank = redis.pcall(args[2] == '1' and 'ZREVRANK' or 'ZRANK', keys[1], args[1])
  if type(rank) ~= 'number' then return rank and refused(rank) or absent_or(keys[1], NO_SET_KEY) end
  local value = false
  if args[3] == '1' then
    value = value_of(keys, args[1])
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
-- items), false for a member without one (all of them without a values
-- hash), or the error for a values hash of another kind.
local function values_of(vals, items, step)
  local members, count = items, #items / step
  if not vals then
    local none = {}
    for i = 1, count do none[i] = false end
    return none
  end
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
    values = values_of(values_key(keys), items, with_scores and 2 or 1)
    if values.err then return refused(values) end
  end
  return { SUCCESS, items, values }
end

register('zscore', zscore, { 'no-writes' })
register('zrank', zrank, { 'no-writes' })
register('zcount', zcount, { 'no-writes' })
register('zrange', zrange, { 'no-writes' })

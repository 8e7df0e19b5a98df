-- relative_writes.lua -- writes whose score depends on what the set holds:
-- past the highest score (kv_zaddvalmax, kv_zaddmaxinc), within a drift of
-- it (kv_zadddis), or by an increment (kv_zincrby).

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
  local main, vals, member = keys[1], values_key(keys), args[3]
  local score, existed, stop = past_top(main, tonumber(args[5]))
  if stop then return stop end
  if not vals then return values_elsewhere() end
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
  local main, vals = keys[1], values_key(keys)
  local score, existed, stop = past_top(main, tonumber(args[3]))
  if stop then return stop end
  local member = score_name(score)
  if existed and vals then
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
  local had_values = vals and redis.pcall('HLEN', vals) or 0
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
  local main, vals = keys[1], values_key(keys)
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
  local dropped = vals and redis.pcall('HDEL', vals, holder) or 0
  if type(dropped) ~= 'number' then return refused(dropped) end
  redis.call('ZADD', main, args[3], holder)
  apply_ttl(main, vals, true, args, VALUES_KEPT)
  return { SUCCESS, holder }
end

-- kv_zincrby: ttl, commit, member, increment
-- The new score leaves as ZINCRBY's own text of it.
local function zincrby(keys, args)
  local main, vals = keys[1], values_key(keys)
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

register('zaddvalmax', zaddvalmax)
register('zaddmaxinc', zaddmaxinc)
register('zadddis', zadddis)
register('zincrby', zincrby)

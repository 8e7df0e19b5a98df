-- removals.lua -- kv_zrem, kv_zmrem and the range removals. They only
-- ever shrink the data, so they run on a full server too (allow-oom).

-- kv_zrem and kv_zmrem: members...
-- The values go first: HDEL checks the hash's kind before either key is
-- written. A removal that empties the set (which Redis then deletes) takes
-- the values hash with it.
local function zrem(keys, args)
  local main, vals, last = keys[1], values_key(keys), #args
  local card = redis.pcall('ZCARD', main)
  if type(card) ~= 'number' then return refused(card) end
  if card == 0 then return { NOTFOUND, 0 } end
  -- (and/or: a number or an error table is never false)
  local dropped = not vals and 0 or last == 1 and redis.pcall('HDEL', vals, args[1])
    or sliced('HDEL', vals, args, 1, last)
  if type(dropped) ~= 'number' then return refused(dropped) end
  local removed = last == 1 and redis.call('ZREM', main, args[1]) or sliced('ZREM', main, args, 1, last)
  if removed == card and vals then redis.call('DEL', vals) end
  return { removed > 0 and SUCCESS or NOTFOUND, removed }
end

-- kv_zremrangebyscore and kv_zremrangebyrank: by_score, low, high.
-- An absent key counts as an empty set.
local function zremrange(keys, args)
  local main, vals, by_score = keys[1], values_key(keys), args[1] == '1'
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

register('zrem', zrem, { 'allow-oom' })
register('zremrange', zremrange, { 'allow-oom' })

-- writes.lua -- adding members: kv_sadd, and kv_zadd with its batch and
-- value-carrying forms.

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
    return { met_existing(added, (last - 3) / 2, args, 5, last, 2) and ALREADY_EXISTS or SUCCESS }
  end
  if not clear_left_values(vals, state) then
    -- The set is this call's own: deleting it leaves the key as it was.
    redis.call('DEL', main)
    return { WRONG_REPLY }
  end
  apply_ttl(main, vals, false, args, VALUES_NONE)
  return { SUCCESS }
end

-- kv_zaddval and kv_zmaddval: ttl, commit, "1", then score, member for each
-- member, then member, value for each: the argument lists of ZADD and HSET
-- as they are, so that a batch builds no table here. The values go first:
-- HSET checks the hash's kind before either key is written.
local function zadd_values(main, vals, args)
  local card = redis.pcall('ZCARD', main)
  if type(card) ~= 'number' then return refused(card) end
  if not vals then return values_elsewhere() end
  if card == 0 and not clear_left_values(vals) then return { WRONG_REPLY } end
  local last = #args
  local n = (last - 3) / 4
  local scored_last = 3 + 2 * n
  local made, added
  if n == 1 then
    made = redis.pcall('HSET', vals, args[6], args[7])
    if type(made) ~= 'number' then return refused(made) end
    added = redis.call('ZADD', main, args[4], args[5])
  else
    made = sliced('HSET', vals, args, scored_last + 1, last)
    if type(made) ~= 'number' then return refused(made) end
    added = sliced('ZADD', main, args, 4, scored_last)
  end
  local existed = card > 0
  -- New fields may mean a new hash, which must take the set's expiry.
  if made > 0 or not existed or args[2] == '1' then
    apply_ttl(main, vals, existed, args, made > 0 and VALUES_MADE or VALUES_KEPT)
  end
  if existed and met_existing(added, n, args, 5, scored_last, 2) then return { ALREADY_EXISTS } end
  return { SUCCESS }
end

-- kv_zadd, kv_zaddval, kv_zmadd, kv_zmaddval:
-- ttl, commit, with_values ("1"/"0"), then per member: score, member, and
-- with values, then per member: member, value.
-- A member that existed before the call makes the status ALREADY_EXISTS; it
-- keeps its value unless the call gives one.
local function zadd(keys, args)
  if args[3] == '1' then return zadd_values(keys[1], values_key(keys), args) end
  return zadd_plain(keys[1], values_key(keys), args)
end

register('sadd', sadd)
register('zadd', zadd)

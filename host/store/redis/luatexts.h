// The scripts' texts but for those of claims. Internal to scripts.cpp, which documents them.
#pragma once

namespace Host::Redis {

// KEYS: meta, log, then the directories of the steps, in the order of the steps that need them first.
// ARGV: the batch, in MessagePack because a word costs a hundredth of a short write, and the delta. The
// batch:
//     1  the generation, or where there is none "+" and a new one
//     2  fence:UUID
//     3  the origin
//     4  the log's length, or 0 where it need not be cut
//     5  P
//     6  a revision for which the writer knows all entities, where there is one step and it changes values
//     only;
//        else 0
//     7  claims: claim:MOUNT and a token for each
//     8  the steps:
//          e, expected text of every entity, fields and values: alone, in the first directory
//          p, KEYS index, names, expected texts, fields and values
//          u, KEYS index, name, attribute
//          d, KEYS index, name
//          r, KEYS index, name: as d, for an entity that makes room for one of another type
//
// `shape`, in meta, is the last revision that made or removed an entity or added or removed an attribute.
inline constexpr const char* kWriteScript = R"lua(
local redis, KEYS = redis, KEYS
local batch, delta = cmsgpack.unpack(ARGV[1]), ARGV[2]
local origin, own, claims = batch[3], batch[5], batch[7]
local letter = string.sub(own, -1)
local stored, volatile = letter == 's', letter == 'v'
local found
if #claims == 0 then
  found = redis.call('HMGET', KEYS[1], 'generation', batch[2], 'shape')
else
  local asked = {}
  for i = 1, #claims, 2 do asked[#asked + 1] = claims[i] end
  local held, count = nil, #asked
  if not stored then  -- where claims are
    asked[count + 1], asked[count + 2], asked[count + 3] = 'generation', batch[2], 'shape'
    held = redis.call('HMGET', KEYS[1], unpack(asked))
    found = {held[count + 1], held[count + 2], held[count + 3]}
  else
    held = redis.call('HMGET', string.sub(own, 1, -2) .. 'v:meta', unpack(asked))
    found = redis.call('HMGET', KEYS[1], 'generation', batch[2], 'shape')
  end
  for i = 1, count do
    if held[i] ~= claims[2 * i] then
      return redis.error_reply('CLAIMED ' .. string.sub(asked[i], 7) .. ' ' .. (held[i] or ''))
    end
  end
end
local generation = found[1]
if generation ~= batch[1] and (generation or string.sub(batch[1], 1, 1) ~= '+') then
  return redis.error_reply('GENERATION ' .. (generation or ''))
end
if found[2] and tonumber(string.match(found[2], '^%d+')) >= tonumber(string.match(origin, '%d+$')) then
  return redis.error_reply('FENCED the write was given up')
end

-- The fast path for the most frequent write: new values in one directory, of entities that are as the writer knows
-- them. Where they were made, they fitted those of the other space. It returns before the functions below are created,
-- which would take longer than the write.
if found[3] and batch[6] >= tonumber(found[3]) then
  if not stored then redis.set_repl(redis.REPL_REPLICA) end
  local id
  if batch[4] == 0 then
    id = redis.call('XADD', KEYS[2], '0-*', 'o', origin, 'd', delta)
  else
    id = redis.call('XADD', KEYS[2], 'MAXLEN', '~', batch[4], '0-*', 'o', origin, 'd', delta)
  end
  local step = batch[8][1]
  redis.call('HSET', KEYS[3], unpack(step[#step]))
  local revision = string.sub(id, 3)
  local sent = redis.pcall('PUBLISH', own .. ':changes', generation .. ' ' .. revision .. ' ' .. origin .. '\n' .. delta)
  return {tonumber(revision), generation, type(sent) == 'table' and sent.err or ''}
end

-- Stored and volatile rows stand in each other's way, covers in nobody's.
local dirs, other = own .. ':dirs', string.sub(own, 1, -2) .. (volatile and 's' or 'v')
local isAlone = not (stored or volatile)
local function under(space, path)
  local dirs = space .. ':dirs'
  if path == '' then return redis.call('ZRANGE', dirs, 0, -1) end
  local list = redis.call('ZRANGEBYLEX', dirs, '[' .. path .. '/', '(' .. path .. '0')
  if redis.call('ZSCORE', dirs, path) then list[#list + 1] = path end
  return list
end
local function typeOf(text) return string.match(text, '^[^\t]*') end
local function pathAt(directory, name) return directory == '' and name or directory .. '/' .. name end
-- Needs the right to write, and does nothing: no name has a control character.
local function touch(space, directory) redis.call('HDEL', space .. ':d:' .. directory, '\1') end
redis.call('ZREM', dirs, '\1')

local steps, deleted, plain = {}, {}, #batch[8] == 1
local function isDeleted(path)
  for _, above in ipairs(deleted) do
    if above == '' or path == above or string.sub(path, 1, #above + 1) == above .. '/' then return true end
  end
  return false
end

-- The fields and values of a put, and its entities' names and expected texts.
local function readPut(step, packed)
  step.fields = packed[#packed]
  if step.kind == 'p' then
    step.names, step.texts = packed[3], packed[4]
    return
  end
  local names, texts, seen = {}, {}, {}
  for i = 1, #step.fields, 2 do
    local name = string.match(step.fields[i], '^[^/]*')
    if not seen[name] then names[#names + 1], texts[#texts + 1], seen[name] = name, packed[2], true end
  end
  step.names, step.texts = names, texts
end

-- The checks.
local function checkPut(step)
  step.now = redis.call('HMGET', step.key, unpack(step.names))
  local theirs = other .. ':d:' .. step.directory
  local there = not isAlone and redis.call('EXISTS', theirs) == 1 and redis.call('HMGET', theirs, unpack(step.names))
  for i, text in ipairs(step.texts) do
    local now, that = step.now[i], there and there[i]
    if (now and now ~= text) or that then
      local path, wanted = pathAt(step.directory, step.names[i]), typeOf(text)
      if volatile and that and typeOf(that) ~= wanted then return redis.error_reply('STORED ' .. path) end
      local isOther = (now and typeOf(now) ~= wanted) or (that and typeOf(that) ~= wanted)
      if isOther and not isDeleted(path) then
        if volatile and #under(other, path) > 0 then return redis.error_reply('STORED ' .. path) end
        return redis.error_reply('TYPE ' .. path)
      end
    end
  end
end
for _, packed in ipairs(batch[8]) do
  local step = {kind = packed[1], key = packed[1] == 'e' and KEYS[3] or KEYS[packed[2]]}
  step.directory = string.sub(step.key, #own + 4)
  steps[#steps + 1] = step
  if step.kind == 'e' or step.kind == 'p' then
    readPut(step, packed)
    local refused = checkPut(step)
    if refused then return refused end
  else
    step.name = packed[3]
    touch(own, step.directory)
    if stored then
      touch(other, step.directory)
      redis.call('ZREM', other .. ':dirs', '\1')
      redis.call('HDEL', other .. ':meta', '\1')
      redis.call('XTRIM', other .. ':log', 'MAXLEN', '~', '1000000000')
    end
    if step.kind == 'u' then
      step.attribute = packed[4]
    else
      step.path = pathAt(step.directory, step.name)
      if step.kind == 'r' and volatile then
        local stored = redis.call('HEXISTS', other .. ':d:' .. step.directory, step.name) == 1
        if stored or #under(other, step.path) > 0 then return redis.error_reply('STORED ' .. step.path) end
      end
      deleted[#deleted + 1] = step.path
      for _, each in ipairs(under(own, step.path)) do touch(own, each) end
      if stored then
        for _, each in ipairs(under(other, step.path)) do touch(other, each) end
      end
    end
  end
end

-- The changes.
if not stored then redis.set_repl(redis.REPL_REPLICA) end
local function append(space, delta)
  if batch[4] == 0 then return string.match(redis.call('XADD', space .. ':log', '0-*', 'o', origin, 'd', delta), '%d+$') end
  local id = redis.call('XADD', space .. ':log', 'MAXLEN', '~', batch[4], '0-*', 'o', origin, 'd', delta)
  return string.match(id, '%d+$')
end
local revision = append(own, delta)
if not generation then
  generation = string.sub(batch[1], 2)
  redis.call('HSET', KEYS[1], 'generation', generation)
end

local function attributesOf(step)
  local lists = {}
  for i = 1, #step.fields, 2 do
    local slash = string.find(step.fields[i], '/', 1, true)
    local name = string.sub(step.fields[i], 1, slash - 1)
    lists[name] = lists[name] or {}
    table.insert(lists[name], string.sub(step.fields[i], slash + 1))
  end
  return lists
end
local function put(step)
  local now = step.now
  if not plain then now = redis.call('HMGET', step.key, unpack(step.names)) end
  local lists, entities, any = nil, {}, false
  for i, text in ipairs(step.texts) do
    if now[i] then any = true end
    if now[i] ~= text then
      local name = step.names[i]
      local after = now[i] or typeOf(text)
      lists = lists or attributesOf(step)
      for _, attribute in ipairs(lists[name] or {}) do
        if not string.find(after .. '\t', '\t' .. attribute .. '\t', 1, true) then after = after .. '\t' .. attribute end
      end
      if after ~= now[i] then
        entities[#entities + 1] = name
        entities[#entities + 1] = after
      end
    end
  end
  if not any and redis.call('EXISTS', step.key) == 0 then redis.call('ZADD', dirs, 0, step.directory) end
  if #step.fields > 0 then redis.call('HSET', step.key, unpack(step.fields)) end
  if #entities > 0 then redis.call('HSET', step.key, unpack(entities)) end
  return #entities > 0
end
local function unset(space, step)
  local key = space .. ':d:' .. step.directory
  local text = redis.call('HGET', key, step.name)
  if not text then return false end
  local first, last = string.find(text .. '\t', '\t' .. step.attribute .. '\t', 1, true)
  if not first then return false end
  redis.call('HSET', key, step.name, string.sub(text, 1, first - 1) .. string.sub(text, last))
  redis.call('HDEL', key, step.name .. '/' .. step.attribute)
  return true
end
local function del(space, step)
  local key, any = space .. ':d:' .. step.directory, false
  local text = redis.call('HGET', key, step.name)
  if text then
    any = true
    local fields = {step.name}
    for attribute in string.gmatch(text, '\t([^\t]+)') do fields[#fields + 1] = step.name .. '/' .. attribute end
    redis.call('HDEL', key, unpack(fields))
    if redis.call('EXISTS', key) == 0 then redis.call('ZREM', space .. ':dirs', step.directory) end
  end
  for _, each in ipairs(under(space, step.path)) do
    any = true
    redis.call('UNLINK', space .. ':d:' .. each)
    redis.call('ZREM', space .. ':dirs', each)
  end
  return any
end

local hidden = {}
local isNewShape = not found[3]
for _, step in ipairs(steps) do
  if step.names then
    isNewShape = put(step) or isNewShape
  else
    local carry = step.kind == 'u' and unset or del
    isNewShape = carry(own, step) or isNewShape
    if stored then
      redis.set_repl(redis.REPL_REPLICA)
      if carry(other, step) then
        hidden[#hidden + 1] = step.kind == 'u' and '@' .. step.directory .. '\n-' .. step.name .. '\t' .. step.attribute or
          '!' .. step.path
      end
      redis.set_repl(redis.REPL_ALL)
    end
  end
end

if isNewShape then redis.call('HSET', KEYS[1], 'shape', revision) end

local function announce(space, itsGeneration, itsRevision, delta)
  local sent = redis.pcall('PUBLISH', space .. ':changes',
                           itsGeneration .. ' ' .. itsRevision .. ' ' .. origin .. '\n' .. delta)
  return type(sent) == 'table' and sent.err or ''
end
if #hidden > 0 then
  redis.set_repl(redis.REPL_REPLICA)
  local delta = '^' .. revision .. '\n' .. table.concat(hidden, '\n') .. '\n'
  local its = append(other, delta)
  redis.call('HSET', other .. ':meta', 'shape', its)
  announce(other, redis.call('HGET', other .. ':meta', 'generation') or '', its, delta)
  redis.set_repl(redis.REPL_ALL)
end
return {tonumber(revision), generation, announce(own, generation, revision, delta)}
)lua";

// KEYS: meta and log of each space.
inline constexpr const char* kStateScript = R"lua(
local info = redis.call('INFO', 'server', 'replication', 'memory')
local function said(name) return string.match(info, '\n' .. name .. ':([^\r\n]*)') or '' end
local answer = {said('master_replid'), said('run_id'), said('role'), said('maxmemory_policy')}
for i = 1, #KEYS, 2 do
  local last = redis.call('XREVRANGE', KEYS[i + 1], '+', '-', 'COUNT', 1)
  answer[#answer + 1] = redis.call('HGET', KEYS[i], 'generation') or ''
  answer[#answer + 1] = last[1] and tonumber(string.match(last[1][1], '^0%-(%d+)$')) or 0
end
return answer
)lua";

// Goes before the state script. ARGV: uuid, fence, the space's letter. A fence stays for a day; no request of
// a lost connection arrives later.
inline constexpr const char* kFenceScript = R"lua(
if ARGV[3] ~= 's' then redis.set_repl(redis.REPL_REPLICA) end
local now = tonumber(redis.call('TIME')[1])
if redis.call('HEXISTS', KEYS[1], 'generation') == 1 then
  local all = redis.call('HGETALL', KEYS[1])
  for i = 1, #all, 2 do
    local since = string.sub(all[i], 1, 6) == 'fence:' and tonumber(string.match(all[i + 1], '%d+$'))
    if since and since < now - 86400 then redis.call('HDEL', KEYS[1], all[i]) end
  end
  redis.call('HSET', KEYS[1], 'fence:' .. ARGV[1], ARGV[2] .. ' ' .. string.format('%d', now))
end
)lua";

// KEYS: meta, log. ARGV: after, count, bytes.
inline constexpr const char* kLogScript = R"lua(
local generation = redis.call('HGET', KEYS[1], 'generation') or ''
local last = redis.call('XREVRANGE', KEYS[2], '+', '-', 'COUNT', 1)
local tip = last[1] and tonumber(string.match(last[1][1], '^0%-(%d+)$')) or 0
local entries, after, bytes, chunk = {}, '0-' .. ARGV[1], 0, 32
local count, most = tonumber(ARGV[2]), tonumber(ARGV[3])
while true do
  local asked = math.min(chunk, count - #entries)
  local found = redis.call('XRANGE', KEYS[2], '(' .. after, '+', 'COUNT', asked)
  for _, each in ipairs(found) do
    bytes = bytes + #(each[2][4] or '')
    if bytes > most and #entries > 0 then return {generation, tip, entries} end
    entries[#entries + 1], after = each, each[1]
  end
  if #found < asked or #entries == count then return {generation, tip, entries} end
end
)lua";

}  // namespace Host::Redis

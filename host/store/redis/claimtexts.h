// The texts of the scripts of claims. Internal to scripts.cpp, which documents them.
#pragma once

namespace Host::Redis {

// Goes before the scripts of claims, which have KEYS: meta, claim. ARGV begins with the mount.
inline constexpr const char* kClaimAnswer = R"lua(
local function answer()
  local meta = redis.call('HMGET', KEYS[1], 'generation', 'claim:' .. ARGV[1])
  local claim = redis.call('HMGET', KEYS[2], 'beat', 'who', 'synced')
  return {meta[1] or '', meta[2] or '', tonumber(claim[1] or 0), claim[2] or '', claim[3] or ''}
end
)lua";

// KEYS: meta. ARGV: P:claim:, the most claims.
inline constexpr const char* kClaimsScript = R"lua(
local meta, generation, parts, left = redis.call('HGETALL', KEYS[1]), '', {}, tonumber(ARGV[2])
for i = 1, #meta, 2 do
  if meta[i] == 'generation' then
    generation = meta[i + 1]
  elseif string.sub(meta[i], 1, 6) == 'claim:' and left > 0 then
    left = left - 1
    local mount = string.sub(meta[i], 7)
    local claim = redis.call('HMGET', ARGV[1] .. mount, 'beat', 'who', 'synced')
    for _, each in ipairs({mount, meta[i + 1], claim[1] or '0', claim[2] or '', claim[3] or ''}) do
      parts[#parts + 1] = each
    end
  end
end
return {generation, parts}
)lua";

// ARGV: mount, generation, token and beat as they were seen, uuid, who, new generation.
inline constexpr const char* kTakeScript = R"lua(
local now = answer()
if now[1] ~= ARGV[2] or now[2] ~= ARGV[3] or now[3] ~= tonumber(ARGV[4]) then return now end
redis.set_repl(redis.REPL_REPLICA)
local epoch = tonumber(string.match(now[2], '^%d+') or 0) + 1
if now[1] == '' then redis.call('HSET', KEYS[1], 'generation', ARGV[7]) end
redis.call('HSET', KEYS[1], 'claim:' .. ARGV[1], string.format('%d', epoch) .. ' ' .. ARGV[5])
redis.call('HSET', KEYS[2], 'beat', now[3] + 1, 'who', ARGV[6], 'synced', '')
return answer()
)lua";

// ARGV: mount, token, synced.
inline constexpr const char* kBeatScript = R"lua(
local now = answer()
if now[2] ~= ARGV[2] then return now end
redis.set_repl(redis.REPL_REPLICA)
redis.call('HSET', KEYS[2], 'beat', now[3] + 1, 'synced', ARGV[3])
return answer()
)lua";

// ARGV: mount, token. The epoch stays.
inline constexpr const char* kReleaseScript = R"lua(
local now = answer()
if now[2] ~= ARGV[2] then return now end
redis.set_repl(redis.REPL_REPLICA)
redis.call('HSET', KEYS[1], 'claim:' .. ARGV[1], string.match(now[2], '^%d+') .. ' ')
redis.call('HSET', KEYS[2], 'beat', now[3] + 1)
return answer()
)lua";

// KEYS: meta, claim, log, dirs, the directory of the mount's entity. ARGV: mount, generation, token and beat
// as they were seen, P, directory, name, origin, delta, log length.
inline constexpr const char* kSweepScript = R"lua(
local now = answer()
if now[1] ~= ARGV[2] or now[2] ~= ARGV[3] or now[3] ~= tonumber(ARGV[4]) or now[2] == '' then return now end
redis.set_repl(redis.REPL_REPLICA)
local mount, space = ARGV[1], ARGV[5]
local under = mount == '' and redis.call('ZRANGE', KEYS[4], 0, -1) or
  redis.call('ZRANGEBYLEX', KEYS[4], '[' .. mount .. '/', '(' .. mount .. '0')
if mount ~= '' and redis.call('ZSCORE', KEYS[4], mount) then under[#under + 1] = mount end
local text = redis.call('HGET', KEYS[5], ARGV[7])

-- The checks: each needs the right to write, and does nothing.
redis.call('HDEL', KEYS[1], '\1')
redis.call('HDEL', KEYS[2], '\1')
redis.call('XTRIM', KEYS[3], 'MAXLEN', '~', '1000000000')
redis.call('ZREM', KEYS[4], '\1')
redis.call('HDEL', KEYS[5], '\1')
for _, each in ipairs(under) do redis.call('HDEL', space .. ':d:' .. each, '\1') end

redis.call('HSET', KEYS[1], 'claim:' .. mount, string.match(now[2], '^%d+') .. ' ')
redis.call('DEL', KEYS[2])
if not text and #under == 0 then return answer() end
local id = redis.call('XADD', KEYS[3], 'MAXLEN', '~', ARGV[10], '0-*', 'o', ARGV[8], 'd', ARGV[9])
local revision = string.match(id, '%d+$')
redis.call('HSET', KEYS[1], 'shape', revision)  -- see the write script
if text then
  local fields = {ARGV[7]}
  for attribute in string.gmatch(text, '\t([^\t]+)') do fields[#fields + 1] = ARGV[7] .. '/' .. attribute end
  redis.call('HDEL', KEYS[5], unpack(fields))
  if redis.call('EXISTS', KEYS[5]) == 0 then redis.call('ZREM', KEYS[4], ARGV[6]) end
end
for _, each in ipairs(under) do
  redis.call('UNLINK', space .. ':d:' .. each)
  redis.call('ZREM', KEYS[4], each)
end
redis.pcall('PUBLISH', space .. ':changes', now[1] .. ' ' .. revision .. ' ' .. ARGV[8] .. '\n' .. ARGV[9])
return answer()
)lua";

}  // namespace Host::Redis

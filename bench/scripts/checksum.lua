-- Each script returns a function that decodes one batch and returns what it found. Where one
-- Lua spells the exclusive or as an operator and the other as bit.bxor, the scripts say
-- XOR(a, b), which is rewritten for the Lua in use when they are loaded.
local byte = string.byte

return function(frame)
  if #frame ~= 64 then return 0 end
  local sum, lrc = 0, 0
  for i = 1, 62 do
    local c = byte(frame, i)
    sum = sum + c
    lrc = XOR(lrc, c)
  end
  if sum % 256 == byte(frame, 63) and lrc == byte(frame, 64) then return 1 end
  return 0
end

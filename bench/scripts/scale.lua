local byte, find, sub = string.byte, string.find, string.sub
local weight = 0

return function(frame)
  local unit = find(frame, "kg", 1, true)
  if not unit or unit < 16 then return weight end
  weight = tonumber(sub(frame, 8, unit - 1)) or 0
  if byte(frame, 7) == 45 then weight = -weight end
  send("\6\r\n")
  return weight
end

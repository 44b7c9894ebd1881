local byte, sub = string.byte, string.sub
local fields = {}
local latitude, longitude, first, second = 0, 0, 0, 0

local function number(field)
  return tonumber(sub(fields.sentence, fields[field] + 1, fields[field + 1] - 1)) or 0
end

return function(sentence)
  local star = string.find(sentence, "*", 1, true)
  if not star then return 0, latitude, longitude, first, second end
  local sum, count = 0, 0
  for i = 2, star - 1 do
    local c = byte(sentence, i)
    sum = XOR(sum, c)
    if c == 44 then
      count = count + 1
      fields[count] = i
    end
  end
  fields[count + 1] = star
  fields.sentence = sentence
  if sum ~= tonumber(sub(sentence, star + 1, star + 2), 16) or count < 10 then
    return 0, latitude, longitude, first, second
  end
  if byte(sentence, 4) == 71 then
    latitude, longitude, first, second = number(2), number(4), number(8), number(9)
  else
    latitude, longitude, first, second = number(3), number(5), number(7), number(8)
  end
  return 1, latitude, longitude, first, second
end

local byte, sub = string.byte, string.sub

return function(batch)
  local start, line = 1, ""
  for i = 1, #batch do
    if byte(batch, i) == 10 then
      line = sub(batch, start, i - 1)
      start = i + 1
    end
  end
  return start - 1, line
end

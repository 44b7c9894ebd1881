local byte, sub = string.byte, string.sub

return function(batch)
  local start, bytes, line = 1, 0, ""
  for i = 1, #batch do
    if byte(batch, i) == 10 then
      line = sub(batch, start, i - 1)
      bytes = bytes + i - start
      start = i + 1
    end
  end
  return bytes, line
end

local find, sub = string.find, string.sub

return function(batch)
  local at, bytes, line = 1, 0, ""
  while true do
    local pos = find(batch, "\n", at, true)
    if not pos then break end
    line = sub(batch, at, pos - 1)
    bytes = bytes + pos - at
    at = pos + 1
  end
  return bytes, line
end

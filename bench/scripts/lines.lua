local find, sub = string.find, string.sub

return function(batch)
  local at, line = 1, ""
  while true do
    local pos = find(batch, "\n", at, true)
    if not pos then break end
    line = sub(batch, at, pos - 1)
    at = pos + 1
  end
  return at - 1, line
end

% y = shift_axes(who, kernel, x, dim)   both circular shifts; DIM is a cell, empty for all axes
function y = shift_axes(who, kernel, x, dim)
  check_array(who, 'X', x);
  axes = 1:3;
  if ~isempty(dim), axes = check_whole(who, 'DIM', dim{1}, 1, 1, 3); end
  y = __ctessel__(kernel, x, axes);
end

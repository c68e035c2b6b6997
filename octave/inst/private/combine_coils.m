% y = combine_coils(who, kernel, x, dim)   both combinations; DIM is a cell, empty for dimension 4
function y = combine_coils(who, kernel, x, dim)
  check_array(who, 'X', x);
  if isempty(dim), dim = {4}; end
  y = __ctessel__(kernel, x, check_whole(who, 'DIM', dim{1}, 1, 1, 64));
end

% [weighted, low] = homodyne_reference(data, ranges): the filter in plain m-code, for ranges that it
% accepts. Products in double, the root and the result in single, as in the module.
function [weighted, low] = homodyne_reference(data, ranges)
  product = 1;
  filtered = 0;
  where = repmat({':'}, 1, max(ndims(data), 3));
  for d = 1:3
    if isempty(ranges{d}), continue, end
    n = size(data, d);
    line = (0:n - 1)' - floor(n / 2);
    first = ranges{d}(1);
    w = 1 + sign(line) .* (line / first) .^ 2;
    w(line <= first) = 0;
    w(line >= -first) = 2;
    product = product .* shiftdim(double(single(w)), 1 - d);
    filtered += 1;
    where{d} = floor(n / 2) + 1 + (first:-first);
  end
  low = data(where{:});
  weighted = data .* single(product) .^ single(1 / filtered);
end

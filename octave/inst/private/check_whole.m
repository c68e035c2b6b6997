% v = check_whole(who, name, v, counts, low, high)   whole numbers from LOW to HIGH as a double row;
% COUNTS holds the lengths that are allowed
function v = check_whole(who, name, v, counts, low, high)
  given = v;
  good = isnumeric(v) && isreal(v) && any(numel(v) == counts) && (isvector(v) || isscalar(v));
  if good
    v = double(full(v(:)'));
    good = all(v == fix(v)) && all(v >= low) && all(v <= high);
  end
  if good, return, end

  if isequal(counts, 1)
    expected = sprintf('a whole number from %d to %d', low, high);
  else
    choices = strjoin(arrayfun(@num2str, counts, 'UniformOutput', false), ' or ');
    expected = sprintf('%s whole numbers from %d to %d', choices, low, high);
  end
  reject(who, name, expected, given);
end

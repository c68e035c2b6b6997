% v = check_whole(who, name, v, counts, low, high)   whole numbers from LOW to HIGH as a double row;
% COUNTS holds the lengths that are allowed
function v = check_whole(who, name, v, counts, low, high)
  if isequal(counts, 1)
    expected = sprintf('a whole number from %d to %d', low, high);
  else
    choices = strjoin(arrayfun(@num2str, counts, 'UniformOutput', false), ' or ');
    expected = sprintf('%s whole numbers from %d to %d', choices, low, high);
  end
  if ~isnumeric(v) || ~isreal(v) || ~isvector(v) && ~isscalar(v) || ~any(numel(v) == counts)
    reject(who, name, expected, v);
  end
  given = v;
  v = double(full(v(:)'));
  if any(v ~= fix(v)) || any(v < low) || any(v > high), reject(who, name, expected, given); end
end

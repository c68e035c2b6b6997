% The module in its real host: results reach the caller's variables, errors leave them alone.

rand('state', 1);
random = @(varargin) single(complex(rand(varargin{:}) - .5, rand(varargin{:}) - .5));

% Complex and real data, one to five dimensions, one and several filtered axes.
for is_complex = [true false]
  for extents = {[16 1], [16 12], [8 16 6], [8 16 6 3], [4 16 1 3 2]}
    for ranges = {{[], [], []}, {[-3 7], [], []}, {[-3 7], [-2 4], []}, {[], [], [-1 3]}}
      usable = true;
      for d = 1:3
        n = size(ones(extents{1}), d);
        usable = usable && (isempty(ranges{1}{d}) || -ranges{1}{d}(1) <= ceil(n / 2) - 2);
      end
      if ~usable, continue, end
      data = random(extents{1});
      if ~is_complex, data = real(data); end
      original = data + 0;
      shared = data;
      low = homodyne('filter', data, ranges{1}{:});
      if all(cellfun(@isempty, ranges{1}))
        want = original;
        want_low = original;
      else
        [want, want_low] = homodyne_reference(original, ranges{1});
      end
      assert(class(low), 'single');
      assert(size(low), size(want_low));
      assert(low, want_low);
      assert(data, want, -2 * eps('single'));
      assert(shared, data);
      assert(iscomplex(data), is_complex);
    end
  end
end

% multiply: real and complex on either side.
for data_complex = [true false]
  for low_complex = [true false]
    data = random(8, 6, 2, 3);
    low = random(8, 6, 2, 3);
    if ~data_complex, data = real(data); end
    if ~low_complex, low = real(low); end
    original = data + 0;
    kept = low + 0;
    homodyne('multiply', data, low);
    want = real(double(original) .* conj(double(low))) ./ abs(double(low));
    if ~data_complex, want = double(original) .* real(double(low)) ./ abs(double(low)); end
    assert(real(data), single(want), 1e-6);
    assert(~any(imag(data(:))));
    assert(low, kept);
  end
end
% Error texts come with the host's prefix and leave the data unchanged. Classes as this host names
% them; every text is tested on the other hosts.
d = random(4, 4);
kept = d + 0;
r = [-1 2];
faults = {
  {},                                  'The first input must be a string describing the functionality.'
  {1},                                 'The first input must be a string describing the functionality.'
  {'filter', double(d), r, r, r},      'Data must be of type single.'
  {'filter', single([]), r, r, r},     'Data cannot be empty.'
  {'filter', d, single(r), 1i, 'a'},   'kx-range must be of type double.'
  {'filter', d, [], int8(r), r},       'ky-range must be of type double.'
  {'filter', d, [], r, 'ab'},          'kz-range must be of type double.'
  {'filter', d, r * 1i, r, r},         'kx-range must be real valued.'
  {'filter', d, ones(1, 2, 2), r, r},  'The kx-range must be 1 dimensional vector.'
  {'filter', d, [], sparse([0 7]), []}, 'ky-range must be of type double.'
  {'filter', d, zeros(1, 0), r, r},    'The kx-range must be of length 2.'
  {'multiply', d, double(d)},          'LowRes must be of type single.'
  {'multiply', d, ones(4, 4, 2, 'single')}, ...
      'The data must have the same number of dimensions than the low resolution data'};
for i = 1:rows(faults)
  message = '';
  try
    homodyne(faults{i, 1}{:});
  catch problem
    message = problem.message;
  end
  assert(message, ['homodyne: ' faults{i, 2}]);
  assert(d, kept);
end

% Other names do nothing, and return nothing.
homodyne('Filter', d, r, r, r);
homodyne('filt');
assert(d, kept);

% Outputs that no memory holds: our own error, then the host's, which passes through the module.
for planes = [2147483647 2^24]
  message = '';
  try
    homodyne('filter', zeros(2147483647, 0, planes, 'single'), [], [-5 2], []);
  catch problem
    message = problem.message;
  end
  assert(~isempty(strfind(message, 'memory')));
end

% Parts of an array share its storage: the low-resolution image counts as it was.
v = random(4001, 1);
data = reshape(v(2:end), 10, 1, 1, []);
low = reshape(v(1:end - 1), 10, 1, 1, []);
want = real(data .* conj(low)) ./ abs(low);
homodyne('multiply', data, low);
assert(real(data), want, 1e-5);

low = homodyne('filter', random(4, 16), [], [-8 2], []);
assert(size(low), [4 1]);  % a rejected range keeps one position

text = evalc('help homodyne');
assert(~isempty(strfind(text, 'IN PLACE')));
disp('in_place: all checks passed');

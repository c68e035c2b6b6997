% Homodyne reconstruction of partial-Fourier k-space, from k-space to the image.
%
%   image = homodyne_recon(kspace, kx)
%   image = homodyne_recon(kspace, kx, ky)
%   image = homodyne_recon(kspace, kx, ky, kz)
%
%   kspace       kx, ky, kz, then coils, slices and so on; single or double, real or complex, on the
%                full grid with line 0 in the centre: on an axis of N samples it is sample
%                floor(N/2) + 1. Lines outside of the ranges count as not measured; their values are
%                ignored.
%   kx, ky, kz   measured range [first last] of each axis in whole lines from the centre; [] or left
%                out for a fully sampled axis. Lines may be missing on either side. At least 0.55 of
%                the 2 m + 1 lines -m .. m must be measured; m is the farther end of the range.
%   image        real single, the shape of KSPACE: its centred inverse transform along the first
%                three dimensions, without the phase of its low-resolution image. Noise can make it
%                negative. Where the low-resolution image is exactly 0, the image is 0.
%
% KSPACE is not changed. Put slices of a two-dimensional scan into the fourth dimension or beyond, not
% into the third. If the positive side of an axis is missing, the axis is mirrored for the filter, and the
% image is mirrored back. On an axis of even length, line -N/2 then has no counterpart and is left out.
% A range with abs(first + last) <= 1 is symmetric: that axis is transformed without a filter.
%
% Example: lines -20 .. 63 of 128 were measured along ky.
%
%   [kx, ky] = ndgrid(-32:31, -64:63);
%   kspace = sinc(kx / 3) .* sinc(ky / 5) .* exp(0.1i * ky) + 0;
%   image = homodyne_recon(kspace, [], [-20 63]);
%   imagesc(image)
%
% Literature: D. C. Noll, D. G. Nishimura, A. Macovski, "Homodyne detection in magnetic resonance
% imaging", IEEE Transactions on Medical Imaging 10(2):154-163, 1991.
%
% See also: homodyne
function image = homodyne_recon(kspace, varargin)
  if nargin < 2 || nargin > 4, print_usage(); end
  who = 'homodyne_recon';
  check_array(who, 'KSPACE', kspace);
  if numel(kspace) < 2, reject_shape(who, 'KSPACE', 'more than one sample', kspace); end
  ranges = [varargin, {[], []}](1:3);
  names = {'KX', 'KY', 'KZ'};
  mirrored = false(1, 3);
  data = single(kspace) + 0;  % in storage of its own: the module works in place
  for d = 1:3
    [ranges{d}, mirrored(d)] = check_range(who, names{d}, ranges{d}, size(kspace, d));
    data = without_lines(data, ranges{d}, d);
    if mirrored(d)
      data = mirror(data, d);
      % Line -N/2 becomes itself, so the mirrored range ends before it.
      last = ceil(size(kspace, d) / 2) - 1;
      ranges{d} = [-ranges{d}(2), min(-ranges{d}(1), last)];
    end
  end

  low = homodyne('filter', data, ranges{:});
  centre = zeros(size(data), 'single');
  where = repmat({':'}, 1, ndims(data));
  for d = find(size(low) ~= size(data))
    where{d} = floor(size(data, d) / 2) + 1 + (ranges{d}(1):-ranges{d}(1));
  end
  centre(where{:}) = low;

  image = centred_image(data);
  phase = centred_image(centre);
  homodyne('multiply', image, phase);
  image = real(image);
  image(phase == 0) = 0;
  for d = find(mirrored), image = mirror(image, d); end
end

% The range as [first last], both within the axis, and whether the positive side is missing.
function [range, mirrored] = check_range(who, name, range, n)
  mirrored = false;
  if isnumeric(range) && isempty(range)
    range = [];
    return
  end
  lowest = -floor(n / 2);
  highest = ceil(n / 2) - 1;
  given = range;
  range = check_whole(who, name, range, 2, lowest, highest);
  if range(1) > range(2), reject(who, name, '[first last] with first <= last', given); end
  if abs(sum(range)) <= 1, return, end
  mirrored = sum(range) < 0;
  longer = max(abs(range));
  if (diff(range) + 1) / (2 * longer + 1) < 0.55
    expected = sprintf('a range of at least %d lines (0.55 of the %d from %d to %d)', ...
                       ceil(0.55 * (2 * longer + 1)), 2 * longer + 1, -longer, longer);
    reject(who, name, expected, given);
  end
end

function data = without_lines(data, range, d)
  if isempty(range), return, end
  n = size(data, d);
  lines = (0:n - 1) - floor(n / 2);
  where = repmat({':'}, 1, ndims(data));
  where{d} = lines < range(1) | lines > range(2);
  data(where{:}) = 0;
end

% Line k goes to -k; line -N/2 of an even axis stays.
function x = mirror(x, d)
  x = flip(x, d);
  if mod(size(x, d), 2) == 0, x = circshift(x, 1, d); end
end

function x = centred_image(x)
  for d = 1:min(ndims(x), 3)
    if size(x, d) > 1, x = fftshift(ifft(ifftshift(x, d), [], d), d); end
  end
end

%!function x = inverse(k)
%!  x = k;
%!  for d = 1:min(ndims(k), 3)
%!    x = fftshift(ifft(ifftshift(x, d), [], d), d);
%!  end
%!endfunction
%!function k = forward(x)
%!  k = x;
%!  for d = 1:min(ndims(x), 3)
%!    k = fftshift(fft(ifftshift(k, d), [], d), d);
%!  end
%!endfunction
%!function image = reference(k, first, d)   % the method in double, one axis, negative side missing
%!  n = size(k, d);
%!  line = shiftdim((0:n - 1)' - floor(n / 2), 1 - d);
%!  w = 1 + sign(line) .* (line / first) .^ 2;
%!  w(line <= first) = 0;
%!  w(line >= -first) = 2;
%!  low = inverse(k .* (abs(line) <= -first));
%!  image = real(inverse(k .* w) .* conj(low)) ./ abs(low);
%!endfunction
%!shared kspace, object
%! [x, y] = ndgrid(((0:19) - 10) / 10, ((0:31) - 16) / 16);
%! object = double(x .^ 2 + y .^ 2 < .5) + (abs(x) < .3 & abs(y - .2) < .1) + .3;
%! kspace = forward(object .* exp(.5i + .4i * x - .5i * y));
%!test % every class, along each axis, against the method in double; the input stays
%! for d = 1:3
%!   extents = [20 1 1 2];
%!   k = permute(cat(4, kspace, kspace .* exp(.3i)), [circshift(1:3, d - 1) 4]);
%!   n = size(k, d);
%!   ranges = {[], [], []};
%!   ranges{d} = [-6, ceil(n / 2) - 1];
%!   if n < 14, continue, end
%!   line = shiftdim((0:n - 1)' - floor(n / 2), 1 - d);
%!   kept = k + 0;
%!   want = reference(k .* (line >= -6), -6, d);
%!   for data = {k, single(k), k + 1e9 * (line < -6)}
%!     image = homodyne_recon(data{1}, ranges{1:d});
%!     assert(class(image), 'single')
%!     assert(isreal(image))
%!     assert(image, single(want), 1e-5)
%!   end
%!   assert(k, kept)
%! end
%!test % single input shares no storage with the result
%! k = single(kspace);
%! shared_with = k;
%! kept = k + 0;
%! homodyne_recon(k, [], [-5 15]);
%! assert({k, shared_with}, {kept, kept})
%!test % the missing side does not matter, along one axis or beside another
%! for n = [31 32]
%!   k = forward(object(:, 1:n));
%!   mirrored = k;
%!   mirrored(:, (mod(n, 2) == 0) + 1:end) = k(:, end:-1:(mod(n, 2) == 0) + 1);
%!   last = ceil(n / 2) - 1;
%!   for kx = {[], [-6 9]}
%!     image = homodyne_recon(k, kx{1}, [-6 last]);
%!     again = flip(homodyne_recon(mirrored, kx{1}, [-last 6]), 2);
%!     if mod(n, 2) == 0, again = circshift(again, 1, 2); end
%!     assert(again, image, 1e-5)
%!   end
%! end
%!test % half the lines are redundant where the phase is constant, and the image comes back whole
%! bright = object(:, 1:31) + 1;
%! for range = {[-6 15], [-15 6]}
%!   assert(homodyne_recon(forward(bright * exp(2i)), [], range{1}), single(bright), 1e-5)
%! end
%!test % full and symmetric ranges are plain transforms
%! full = abs(inverse(kspace));
%! assert(homodyne_recon(kspace, [-10 9], [-16 15]), single(full), 1e-5)
%! assert(homodyne_recon(kspace, single([]), zeros(2, 0), zeros(1, 1, 0)), single(full), 1e-5)
%! assert(homodyne_recon(kspace, [-5 5]), single(abs(inverse(kspace .* (abs((-10:9)') <= 5)))), 1e-5)
%!test % no signal gives 0, one axis and real values are enough
%! assert(homodyne_recon(zeros(16, 16, 1, 2), [-3 7], [-3 7]), zeros(16, 16, 1, 2, 'single'))
%! assert(size(homodyne_recon(ones(16, 1), [-3 7])), [16 1])
%!error <Invalid call> homodyne_recon(1)
%!error <Invalid call> homodyne_recon(ones(16), [], [], [], [])
%!error <homodyne_recon: KSPACE must be a full numeric or logical array; got 16x16 sparse double array>
%! homodyne_recon(speye(16), [-3 7])
%!error <KSPACE must be more than one sample; got 1x1> homodyne_recon(1, [])
%!error <KX must be 2 whole numbers from -8 to 7; got \[-3 8\]> homodyne_recon(ones(16), [-3 8])
%!error <KY must be 2 whole numbers from -8 to 7; got \[-3.5 7\]> homodyne_recon(ones(16), [], [-3.5 7])
%!error <KZ must be 2 whole numbers from 0 to 0; got \[-3 7\]> homodyne_recon(ones(16), [], [], [-3 7])
%!error <KX must be 2 whole numbers from -8 to 7; got 0x0 cell array> homodyne_recon(ones(16), {})
%!error <KX must be \[first last\] with first <= last; got \[7 -3\]> homodyne_recon(ones(16), [7 -3])
%!error <KX must be a range of at least 70 lines \(0.55 of the 127 from -63 to 63\); got \[-5 63\]>
%! homodyne_recon(ones(128, 2), [-5 63])
%!error <KX must be a range of at least 71 lines .* got \[-64 5\]> homodyne_recon(ones(128, 2), [-64 5])

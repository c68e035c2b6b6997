% Image of partial-Fourier k-space by projection onto the measured lines and a smooth phase (POCS).
%
%   image = ctessel_pocs(kspace, kx)
%   image = ctessel_pocs(kspace, kx, ky)
%   image = ctessel_pocs(kspace, kx, ky, kz)
%
%   kspace       kx, ky, kz, then coils, slices and so on; single or double, real or complex, on the
%                full grid with line 0 in the centre: on an axis of N samples it is sample
%                floor(N/2) + 1. Lines outside the ranges count as not measured, whatever they hold.
%   kx, ky, kz   measured range [first last] of each axis in whole lines from the centre, with
%                first <= 0 <= last; [] or left out for an axis that is measured fully. Lines may be
%                missing on either side.
%   image        complex single, the shape of KSPACE: its centred, unitary inverse transform along the
%                first three dimensions, missing lines filled in. Magnitude and phase are both right,
%                as far as the phase is that of the lines measured on both sides of the centre.
%
% Measured lines stay as they are. Five rounds; more leave the image where it is.
%
% Example: lines -20 .. 63 of 128 were measured along ky.
%
%   [kx, ky] = ndgrid(-32:31, -64:63);
%   kspace = exp(-(kx .^ 2 + ky .^ 2) / 400 + 0.1i * ky);
%   image = ctessel_pocs(kspace, [], [-20 63]);
%   imagesc(abs(image))
%
% Literature: E. M. Haacke, E. D. Lindskog, W. Lin, "A fast, iterative, partial-Fourier technique
% capable of local phase recovery", J. Magn. Reson. 92:126-145, 1991.
%
% See also: homodyne_recon
function image = ctessel_pocs(kspace, varargin)
  if nargin < 2 || nargin > 4, print_usage(); end
  who = 'ctessel_pocs';
  check_array(who, 'KSPACE', kspace);
  ranges = [varargin, {[], []}](1:3);
  names = {'KX', 'KY', 'KZ'};
  box = repmat({':'}, 1, ndims(kspace));
  for d = 1:3
    if isempty(ranges{d}), continue, end
    check_lines(who, names{d}, ranges{d}, size(kspace, d));
    box{d} = floor(size(kspace, d) / 2) + 1 + (ranges{d}(1):ranges{d}(2));
  end

  measured = zeros(size(kspace), 'single');
  measured(box{:}) = kspace(box{:});
  phase = low_phase(measured, ranges);
  lines = measured;
  for turn = 1:5
    lines = transform(@fft, abs(transform(@ifft, lines)) .* phase);
    lines(box{:}) = measured(box{:});
  end
  image = complex(transform(@ifft, lines));
end

% Unit phase of the image of the lines that are measured on both sides, under a window.
function phase = low_phase(lines, ranges)
  for d = 1:3
    if isempty(ranges{d}), continue, end
    n = size(lines, d);
    reach = min(-ranges{d}(1), ranges{d}(2));
    k = (0:n - 1) - floor(n / 2);
    window = (abs(k) <= reach) .* cos(pi / 2 * k / (reach + 1)) .^ 2;
    lines = lines .* reshape(single(window), [ones(1, d - 1), n, 1]);
  end
  low = transform(@ifft, lines);
  phase = ones(size(low), 'single');
  there = low != 0;
  phase(there) = low(there) ./ abs(low(there));
end

% Centred, unitary transform along the first three dimensions.
function data = transform(way, data)
  for d = 1:3
    n = size(data, d);
    if n == 1, continue, end
    data = fftshift(way(ifftshift(data, d), [], d), d);
    if isequal(way, @ifft), data *= sqrt(n); else, data /= sqrt(n); end
  end
end

function check_lines(who, name, range, n)
  lowest = -floor(n / 2);
  highest = ceil(n / 2) - 1;
  whole = isnumeric(range) && isreal(range) && numel(range) == 2 && all(range == fix(range));
  if !whole || range(1) < lowest || range(1) > 0 || range(2) < 0 || range(2) > highest
    error('%s: %s must be [] or [first last] with whole numbers from %d to %d around 0', ...
          who, name, lowest, highest);
  end
end

%!function [kspace, truth] = smooth_object()
%!  [x, y] = ndgrid(-12:11, -24:23);
%!  truth = (abs(x) < 8 & abs(y) < 14) .* (1 + .3 * (y > 3)) .* exp(1i * (.4 + .05 * y + .002 * x .* y));
%!  kspace = single(fftshift(fft2(ifftshift(truth))) / sqrt(numel(truth)));
%!endfunction
%!test  % measured lines stay, the others come closer than zeros
%! [kspace, truth] = smooth_object();
%! image = ctessel_pocs(kspace, [], [-6 23]);
%! again = fftshift(fft2(ifftshift(image))) / sqrt(numel(image));
%! assert(again(:, 19:48), kspace(:, 19:48), 1e-4)
%! zeroed = kspace; zeroed(:, 1:18) = 0;
%! zeroed = fftshift(ifft2(ifftshift(zeroed))) * sqrt(numel(truth));
%! assert(norm(image(:) - truth(:)) < .6 * norm(zeroed(:) - truth(:)))
%!test  % either side, two axes, and what lies outside of the ranges counts for nothing
%! [kspace, truth] = smooth_object();
%! image = ctessel_pocs(kspace, [-11 4], [-23 6]);
%! kspace(18:end, :) = NaN;
%! kspace(1, :) = kspace(:, 1) = Inf;
%! assert(ctessel_pocs(kspace, [-11 4], [-23 6]), image)
%! assert(norm(image(:) - truth(:)) < .2 * norm(truth(:)))
%!test  % coils and slices behind the third axis are apart
%! kspace = smooth_object();
%! both = ctessel_pocs(cat(4, kspace, 2i * kspace), [], [-6 23]);
%! assert(both(:, :, 1, 2), ctessel_pocs(2i * kspace, [], [-6 23]), 1e-6)
%! assert(size(both), [24 48 1 2])
%!test  % all lines: the transform alone, as single
%! [kspace, truth] = smooth_object();
%! image = ctessel_pocs(double(kspace), []);
%! assert(isa(image, 'single') && norm(image(:) - truth(:)) < 1e-5 * norm(truth(:)))
%!error <KY must be \[\] or \[first last\] with whole numbers from -24 to 23 around 0> ...
%!  ctessel_pocs(ones(24, 48), [], [-25 3])
%!error <KX must be> ctessel_pocs(ones(24, 48), [1 3])
%!error <KSPACE> ctessel_pocs({1}, [])
%!error <Invalid call> ctessel_pocs(ones(4))

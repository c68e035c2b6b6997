% Weights centred k-space with a smooth window against truncation ringing.
%
%   y = ctessel_ringing_filter(kspace, strength)
%   y = ctessel_ringing_filter(kspace, strength, width)
%
%   kspace     single or double, real or complex, any number of dimensions; line 0 of an axis of N
%              samples is sample floor(N/2) + 1
%   strength   one number for the first two dimensions, or two or three: 0 (no taper) to 0.915
%              (nearly a full Hamming window); values outside are clamped. Without a third value, the
%              third dimension is not filtered.
%   width      widths of the window in samples, two or three; samples outside become 0. If left out:
%              the extents of KSPACE.
%   y          the same shape, single: at j samples from the centre the weight of an axis is
%              0.54 + 0.46 cos(2 pi j / L), where L makes it 1 - strength at half the width.
%              An even window ends a sample earlier on the positive side.
%
% Example:
%
%   kspace = single(complex(rand(16, 12, 1, 4), 1));
%   smooth = ctessel_ringing_filter(kspace, 0.5);
%   plot(ctessel_ringing_filter(ones(32, 1), [0.9 0]))     % the window
%
% Literature: F. J. Harris, "On the use of windows for harmonic analysis with the discrete Fourier
% transform", Proceedings of the IEEE 66(1):51-83, 1978.
function y = ctessel_ringing_filter(kspace, strength, width)
  if nargin < 2 || nargin > 3, print_usage(); end
  who = 'ctessel_ringing_filter';
  check_array(who, 'KSPACE', kspace);
  if ~isnumeric(strength) || ~isreal(strength) || ~any(numel(strength) == 1:3) || ...
     any(isnan(strength(:)))
    reject(who, 'STRENGTH', '1 to 3 real numbers', strength);
  end
  strength = double(full(strength(:)'));
  if isscalar(strength), strength(2) = strength; end
  strength(end + 1:3) = 0;
  extents = max([size(kspace, 1), size(kspace, 2), size(kspace, 3)], 1);
  if nargin == 3
    width = check_whole(who, 'WIDTH', width, [2 3], 0, double(intmax));
    extents(1:numel(width)) = width;
  end
  y = __ctessel__('ringing_filter', kspace, strength, extents);
end

%!function w = window(n, strength, width)   % the definition, in double
%!  j = (0:n - 1)' - floor(n / 2);
%!  L = pi * width / acos((1 - strength - 0.54) / 0.46);
%!  w = (0.54 + 0.46 * cos(2 * pi * j / L)) .* (j >= -floor(width / 2) & j <= ceil(width / 2) - 1);
%!endfunction
%!test
%! x = single(complex(rand(9, 8, 5, 2, 3), rand(9, 8, 5, 2, 3)));
%! w = window(9, .5, 7) .* window(8, .9, 6)' .* shiftdim(window(5, .2, 5), -2);
%! y = ctessel_ringing_filter(x, [.5 .9 .2], [7 6 5]);
%! assert(y, single(x .* w), 2e-6)
%! assert(ctessel_ringing_filter(real(x), [.5 .9 .2], [7 6 5]), real(y))
%!test
%! x = single(rand(7, 6, 3));
%! assert(ctessel_ringing_filter(x, .5), single(x .* window(7, .5, 7) .* window(6, .5, 6)'), 1e-6)
%! assert(ctessel_ringing_filter(x, 0), x, 1e-6)
%! assert(ctessel_ringing_filter(x, -3), ctessel_ringing_filter(x, 0))
%! assert(ctessel_ringing_filter(x, 7), ctessel_ringing_filter(x, .915))
%! assert(nnz(ctessel_ringing_filter(x, 0, [3 2])), 3 * 2 * 3)
%! assert(size(ctessel_ringing_filter(zeros(0, 4), 1)), [0 4])
%!error <ctessel_ringing_filter: STRENGTH must be 1 to 3 real numbers; got \[1 2 3 4\]>
%! ctessel_ringing_filter(ones(2), 1:4)
%!error <WIDTH must be 2 or 3 whole numbers .* got \[-1 2\]> ctessel_ringing_filter(1, 1, [-1 2])
%!error <KSPACE must be .* got 1x1 cell array> ctessel_ringing_filter({1}, 1)

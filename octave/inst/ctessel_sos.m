% Root sum of squares over the coils.
%
%   y = ctessel_sos(x)
%   y = ctessel_sos(x, dim)
%
%   x     coil images, single or double, real or complex, any number of dimensions
%   dim   the dimension of the coils; 4 if left out, after x, y and z
%   y     magnitudes, single: sqrt(sum(abs(x) .^ 2, dim)), summed coil by coil
%
% Example:
%
%   images = single(complex(rand(8, 6, 1, 4), rand(8, 6, 1, 4)));
%   magnitude = ctessel_sos(images);              % 8 x 6
%   ctessel_sos([3 4; 5 12], 2)                   % 5; 13
%
% Literature: P. B. Roemer et al., "The NMR phased array", Magnetic Resonance in Medicine
% 16(2):192-225, 1990.
%
% See also: ctessel_pcsos
function y = ctessel_sos(x, varargin)
  if nargin < 1 || nargin > 2, print_usage(); end
  y = combine_coils('ctessel_sos', 'sos', x, varargin);
end

%!test
%! x = single(complex(rand(4, 3, 2, 5, 2) - .5, rand(4, 3, 2, 5, 2) - .5));
%! for dim = 1:6
%!   assert(ctessel_sos(x, dim), sqrt(sum(abs(x) .^ 2, dim)), 2e-6)
%!   assert(ctessel_sos(real(x), dim), sqrt(sum(real(x) .^ 2, dim)), 2e-6)
%! end
%! assert(ctessel_sos(x), ctessel_sos(x, 4))
%!assert(ctessel_sos(double([3 4; 5 12]), 2), single([5; 13]))
%!assert(ctessel_sos(zeros(2, 0), 2), zeros(2, 1, 'single'))
%!error <ctessel_sos: DIM must be a whole number from 1 to 64; got 0> ctessel_sos(1, 0)
%!error <DIM must be .* got "coils"> ctessel_sos(1, 'coils')
%!assert(ctessel_sos(logical([1 1 0 1]), 2), single(sqrt(3)))

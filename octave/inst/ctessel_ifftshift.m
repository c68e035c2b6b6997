% Moves the centre of an axis, sample floor(N/2) + 1, to its first sample: the inverse of ctessel_fftshift.
%
%   y = ctessel_ifftshift(x)        along the first three dimensions
%   y = ctessel_ifftshift(x, dim)   along dimension DIM, 1 to 3
%
%   x    k-space or images, single or double, real or complex, any number of dimensions
%   y    the same shape, single
%
% Example:
%
%   ctessel_ifftshift([0 1 2 3 4])                % 2 3 4 0 1
%   x = single(rand(5, 4));
%   isequal(ctessel_ifftshift(ctessel_fftshift(x)), x)
%
% See also: ctessel_fftshift, ifftshift
function y = ctessel_ifftshift(x, varargin)
  if nargin < 1 || nargin > 2, print_usage(); end
  y = shift_axes('ctessel_ifftshift', 'ifftshift', x, varargin);
end

%!test
%! for extents = {[1 5], [6 1], [5 4], [4 5 3], [3 4 5 2 3]}
%!   x = single(complex(rand(extents{1}), rand(extents{1})));
%!   for dim = 1:min(ndims(x), 3)
%!     assert(ctessel_ifftshift(x, dim), ifftshift(x, dim))
%!   end
%!   assert(ctessel_ifftshift(ctessel_fftshift(x)), x)
%! end
%!error <ctessel_ifftshift: DIM must be .* got 0> ctessel_ifftshift(1, 0)

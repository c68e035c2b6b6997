% Moves the first sample of an axis, the zero frequency of fft, to its centre.
%
%   y = ctessel_fftshift(x)        along the first three dimensions
%   y = ctessel_fftshift(x, dim)   along dimension DIM, 1 to 3
%
%   x    k-space or images, single or double, real or complex, any number of dimensions. Coils,
%        slices and so on, from the fourth dimension on, are not shifted.
%   y    the same shape, single. On an axis of N samples, sample 1 is now sample floor(N/2) + 1.
%
% fftshift gives the same numbers; this one runs in parallel over the dimensions from the fourth on.
%
% Example:
%
%   ctessel_fftshift([0 1 2 3 4])                 % 3 4 0 1 2
%   kspace = single(complex(rand(8, 6, 1, 4), 1));
%   image = ctessel_fftshift(ifft2(ctessel_ifftshift(kspace)));
%
% See also: ctessel_ifftshift, fftshift
function y = ctessel_fftshift(x, varargin)
  if nargin < 1 || nargin > 2, print_usage(); end
  y = shift_axes('ctessel_fftshift', 'fftshift', x, varargin);
end

%!test % every axis, even and odd, as fftshift of Octave; the input stays
%! for extents = {[1 5], [6 1], [5 4], [4 5 3], [3 4 5 2 3]}
%!   x = single(complex(rand(extents{1}), rand(extents{1})));
%!   kept = x + 0;
%!   all_axes = x;
%!   for dim = 1:min(ndims(x), 3)
%!     assert(ctessel_fftshift(x, dim), fftshift(x, dim))
%!     assert(ctessel_fftshift(real(x), dim), fftshift(real(x), dim))
%!     all_axes = fftshift(all_axes, dim);
%!   end
%!   assert(ctessel_fftshift(x), all_axes)
%!   assert(x, kept)
%! end
%!test
%! for empty = {zeros(0, 0), zeros(0, 3), zeros(3, 0, 2), zeros(2, 3, 1, 0)}
%!   assert(ctessel_fftshift(empty{1}), single(empty{1}))
%! end
%!error <Invalid call> ctessel_fftshift()
%!assert(ctessel_fftshift(int16([1 2 3; 4 5 6])), single([6 4 5; 3 1 2]))
%!error <X must be a full numeric or logical array; got 1x1 cell array> ctessel_fftshift({1})
%!error <X must be a full .* got 3x3 sparse double array> ctessel_fftshift(speye(3))
%!error <DIM must be a whole number from 1 to 3; got 4> ctessel_fftshift(1:3, 4)
%!error <DIM must be a whole number from 1 to 3; got 1.5> ctessel_fftshift(1:3, 1.5)
%!error <X must be an array with extents up to 2147483647> ctessel_fftshift(zeros(0, 3e9))

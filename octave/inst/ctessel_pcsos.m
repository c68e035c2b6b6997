% Root sum of squares over the coils, with a phase.
%
%   y = ctessel_pcsos(x)
%   y = ctessel_pcsos(x, dim)
%
%   x     coil images, single or double, real or complex, any number of dimensions
%   dim   the dimension of the coils; 4 if left out, after x, y and z
%   y     complex single. The magnitude is ctessel_sos(x, dim); the phase is that of a weighted sum of
%         the coil images. The weight of a coil at a voxel is its mean magnitude along the tenth
%         dimension, so all images along that dimension have the same weights.
%
% Example:
%
%   images = single(complex(rand(8, 6, 1, 4), rand(8, 6, 1, 4)));
%   combined = ctessel_pcsos(images);
%   max(max(abs(abs(combined) - ctessel_sos(images))))     % rounding only
%
% See also: ctessel_sos
function y = ctessel_pcsos(x, varargin)
  if nargin < 1 || nargin > 2, print_usage(); end
  y = combine_coils('ctessel_pcsos', 'pcsos', x, varargin);
end

%!test
%! x = single(complex(rand(4, 3, 1, 5) - .5, rand(4, 3, 1, 5) - .5));
%! for dim = [1 2 4]
%!   sum_of_coils = sum(double(x) .* abs(double(x)), dim);
%!   want = ctessel_sos(x, dim) .* exp(1i * angle(sum_of_coils));
%!   assert(ctessel_pcsos(x, dim), single(want), 3e-6)
%! end
%! assert(ctessel_pcsos(x), ctessel_pcsos(x, 4))
%!test % weights from the mean along the tenth dimension
%! x = single(complex(rand(3, 2, 1, 4, 1, 1, 1, 1, 1, 3) - .5, rand(3, 2, 1, 4, 1, 1, 1, 1, 1, 3)));
%! weight = mean(abs(double(x)), 10);
%! want = ctessel_sos(x) .* exp(1i * angle(sum(double(x) .* weight, 4)));
%! assert(ctessel_pcsos(x), single(want), 3e-6)
%!assert(ctessel_pcsos(zeros(2, 2, 1, 3)), zeros(2, 2, 'single'))
%!assert(ctessel_pcsos([-3 -4], 2), single(-5), 1e-6)
%!error <ctessel_pcsos: X must be a full .* got 1x1 struct array> ctessel_pcsos(struct())
%!error <ctessel_pcsos: DIM must be .* got \[1 2\]> ctessel_pcsos(1, [1 2])

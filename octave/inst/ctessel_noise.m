% Noise after unfolding: g-factor, standard deviation and condition of every voxel.
%
%   [g, sd, condition] = ctessel_noise(maps, full_size, fold_size)
%   [g, sd, condition] = ctessel_noise(maps, full_size, fold_size, covariance)
%   [g, sd, condition] = ctessel_noise(maps, full_size, fold_size, covariance, expected, weight)
%   [g, sd, condition] = ctessel_noise(maps, full_size, fold_size, covariance, expected, weight, mask)
%
%   maps         coil sensitivities x, y, z, coil, location, as for ctessel_sense
%   full_size    extents [X Y] or [X Y Z] of the unfolded image
%   fold_size    extents [x y] or [x y z] of the folded images; the same along x
%   covariance   noise of the folded images, coil x coil; covariance(c, c) is the mean squared
%                magnitude. If left out or []: the identity.
%   expected     expected magnitude x, y, z, location on the grid of MAPS. It switches on
%                regularisation: 1 / (expected^2 weight) on the diagonal. [] for none.
%   weight       1 if left out
%   mask         x, y, z, location on the grid of MAPS: not 0 where a voxel is in the object. If left
%                out or []: the voxels that any coil sees.
%   g            X x Y x Z x location, single: noise of the voxel, divided by its noise without
%                aliases; at least 1 without regularisation
%   sd           standard deviation of the complex value in the unit of the folded images. The real
%                and the imaginary part each have 1/sqrt(2) of it
%   condition    of A = S' / covariance * S, with the sensitivities S of the voxels that alias: largest
%                divided by smallest eigenvalue, at most 2^52
%
% All are 0 outside of the object and where no coil sees a voxel. They are NaN where the coils cannot
% separate the voxels that alias. No random numbers are used.
%
% Example: every second line of four coils.
%
%   [x, y] = ndgrid(((0:31) - 16) / 16);
%   angles = reshape((0:3) * pi / 2, 1, 1, 1, 4);
%   maps = exp(-(x - cos(angles)) .^ 2 - (y - sin(angles)) .^ 2 + 1i * angles / 4);
%   g = ctessel_noise(maps, [32 32], [32 16]);
%   max(g(:))                                     % worst noise amplification
%
% Literature: K. P. Pruessmann et al., "SENSE: sensitivity encoding for fast MRI", Magnetic Resonance
% in Medicine 42(5):952-962, 1999.
%
% See also: ctessel_sense
function [g, sd, condition] = ctessel_noise(maps, full_size, fold_size, covariance, expected, weight, mask)
  if nargin < 3 || nargin > 7, print_usage(); end
  who = 'ctessel_noise';
  if nargin < 4, covariance = []; end
  if nargin < 5, expected = []; end
  if nargin < 6, weight = 1; end
  if nargin < 7, mask = []; end

  check_array(who, 'MAPS', maps);
  if isempty(maps) || ndims(maps) > 5
    reject_shape(who, 'MAPS', 'x, y, z, coil, location, none of them empty', maps);
  end
  full_size = check_extents(who, 'FULL_SIZE', full_size);
  given = fold_size;
  fold_size = check_extents(who, 'FOLD_SIZE', fold_size);
  if fold_size(1) ~= full_size(1) || any(fold_size > full_size)
    reject(who, 'FOLD_SIZE', sprintf('%d along x and at most %d x %d along y and z, as FULL_SIZE', ...
                                     full_size), given);
  end
  coils = size(maps, 4);
  check_array(who, 'COVARIANCE', covariance);
  if ~isempty(covariance) && ~isequal(size(covariance), [coils coils])
    reject_shape(who, 'COVARIANCE', sprintf('%dx%d for %d coils', coils, coils, coils), covariance);
  end
  check_positive(who, 'WEIGHT', weight);
  if isempty(mask), mask = permute(any(maps, 4), [1 2 3 5 4]); end
  check_grid(who, 'EXPECTED', expected, maps);
  check_grid(who, 'MASK', mask, maps);
  [g, sd, condition] = __ctessel__('noise', maps, full_size, fold_size, covariance, expected, weight, ...
                                   mask ~= 0);
end

function n = check_extents(who, name, n)
  n = check_whole(who, name, n, [2 3], 1, double(intmax));
  if numel(n) == 2, n(3) = 1; end
end

function check_grid(who, name, image, maps)
  check_array(who, name, image);
  grid = [size(maps, 1), size(maps, 2), size(maps, 3), size(maps, 5)];
  if ~isempty(image) && (ndims(image) > 4 || ~isequal(arrayfun(@(d) size(image, d), 1:4), grid))
    reject_shape(who, name, ['x, y, z, location of MAPS, ' mat2str(grid)], image);
  end
end

%!shared maps, covariance
%! [x, y] = ndgrid(((0:11) - 6) / 12, ((0:23) - 12) / 24);
%! angles = reshape((0:5) * 2 * pi / 6, 1, 1, 1, 6);
%! maps = exp(-(x - cos(angles)) .^ 2 - 2 * (y - sin(angles)) .^ 2 + .2i * angles);
%! maps(1:2, :, :, :) = 0;
%! a = complex(rand(6) - .5, rand(6) - .5);
%! covariance = 1e-14 * (a * a' + eye(6));
%!test % by the matrices of the voxels that alias
%! [g, sd, condition] = ctessel_noise(maps, [12 24], [12 12], covariance);
%! for x = 3:12
%!   for y = 7:18
%!     at = [y, mod(y + 11, 24) + 1];
%!     S = squeeze(maps(x, at, 1, :)).';
%!     A = S' / covariance * S;
%!     want = sqrt(real(diag(inv(A))));
%!     assert(sd(x, at), single(want.'), -1e-4)
%!     assert(g(x, at), single((want .* sqrt(real(diag(A)))).'), -1e-4)
%!     assert(condition(x, at), single(cond(A)) * [1 1], -1e-3)
%!   end
%! end
%! assert(~any([g(1:2, :) sd(1:2, :) condition(1:2, :)](:)) && isa(g, 'single'))
%!test % fully measured: no amplification; regularisation lowers noise; a mask, two locations
%! assert(ctessel_noise(maps, [12 24 1], [12 24])(3:12, :), ones(10, 24, 'single'), 1e-5)
%! [~, plain] = ctessel_noise(maps, [12 24], [12 8]);
%! [~, quiet] = ctessel_noise(maps, [12 24], [12 8], [], ones(12, 24), 1e-2);
%! assert(all(quiet(3:12, :)(:) < plain(3:12, :)(:)))
%! mask = repmat((1:12)' < 9, 1, 24);
%! g = ctessel_noise(cat(5, maps, maps), [12 24], [12 12], [], [], 1, cat(4, mask, ~mask));
%! assert(size(g), [12 24 1 2])
%! assert(any(g, 2)(:, :), [(1:12)' > 2 & (1:12)' < 9, (1:12)' >= 9])
%!error <Invalid call> ctessel_noise(1, [1 1])
%!error <FOLD_SIZE must be 12 along x and at most 24 x 1 along y and z, as FULL_SIZE; got \[12 25\]>
%! ctessel_noise(maps, [12 24], [12 25])
%!error <COVARIANCE must be 6x6 for 6 coils; got 5x5> ctessel_noise(maps, [12 24], [12 12], eye(5))
%!error <WEIGHT must be a positive number; got 0>
%! ctessel_noise(maps, [12 24], [12 12], [], ones(12, 24), 0)
%!error <MASK must be x, y, z, location of MAPS, \[12 24 1 1\]; got 12x12>
%! ctessel_noise(maps, [12 24], [12 12], [], [], 1, ones(12))

% Unfolds undersampled multi-coil images with coil sensitivities (SENSE).
%
%   image = ctessel_sense(folded, maps)
%   image = ctessel_sense(folded, maps, full_size)
%   image = ctessel_sense(folded, maps, full_size, covariance)
%   image = ctessel_sense(folded, maps, full_size, covariance, expected, reference, scale)
%   image = ctessel_sense(folded, maps, full_size, covariance, expected, reference, scale, aliases)
%
%   folded       x, y, z, coil, then up to nine more dimensions that are reconstructed one by one;
%                the eighth is the location. Single or double, as all arrays here.
%   maps         coil sensitivities x, y, z, coil, location over the full field of view. The grid may
%                be coarser or finer than that of the image. MAPS also mark the object: in each column
%                x, the object starts at the first sample of coil 1 with a REAL part other than 0.
%                All later lines of the column count as object. So extend the maps into the air. If
%                no coil has a sensitivity at a line of the object, the voxels that alias with it are
%                not finite, and a warning says so. A sixth dimension holds sets of maps, for voxels
%                in which the object folds onto itself (see ctessel_espirit). MAPS then have the y and z of
%                the image, which are multiples of those of FOLDED.
%   full_size    unfolded extents [X Y] or [X Y Z]. X is that of FOLDED; the factors Y / y and Z / z
%                may be fractions. If left out or []: x of FOLDED, y and z of MAPS.
%   covariance   noise of the coils, coil x coil. If left out or []: the identity. Without
%                regularisation its unit does not matter. With regularisation, covariance(c, c) is the
%                mean squared magnitude of the noise in FOLDED: k times the covariance acts like 1/k of
%                the weight.
%   expected     expected magnitude x, y, z, location on the grid of MAPS. It switches on
%                regularisation, and needs REFERENCE, an image with the same intensity.
%   scale        divisor of the intensity of FOLDED in the weight of the regularisation; 1 if left out
%   aliases      offsets [y z] in unfolded voxels, one a row, for sampling patterns that are not a product
%                of y and z (CAIPIRINHA), cyclic. Alias k of folded voxel (y, z), from 0, is voxel
%                mod(y + ceil((Y - size(FOLDED, 2)) / 2) + aliases(k, 1), Y), and so on along z. Every voxel
%                must occur exactly once, and MAPS must have Y and Z. If left out or []: multiples of the
%                folded extents.
%   image        complex single, X x Y x Z x set, then the other extents of FOLDED. 0 outside of the
%                object.
%
% Scale: line j of a folded axis is the SUM of the lines of the full axis that alias onto it; the central
% lines keep their place. Take every R-th of N lines of k-space, N/R in all. Their centred inverse transform
% by ifft is this sum, because ifft divides by the number of its lines. Do not multiply it by R. If you
% transform all N lines, with zeros for the others, ifft divides by N, and the result is the sum divided by R.
%
% Example: every second line of a disc with four coils.
%
%   [x, y] = ndgrid(((0:31) - 16) / 16);
%   angles = reshape((0:3) * pi / 2, 1, 1, 1, 4);
%   maps = exp(-(x - cos(angles)) .^ 2 - (y - sin(angles)) .^ 2 + 1i * angles / 4);
%   disc = x .^ 2 + y .^ 2 < 0.6;
%   folded = maps .* disc;
%   folded = folded(:, 9:24, :, :) + folded(:, [25:32 1:8], :, :);
%   image = ctessel_sense(folded, maps);
%   max(abs(image(:) - disc(:)))                  % rounding only
%
% Literature: K. P. Pruessmann et al., "SENSE: sensitivity encoding for fast MRI", Magnetic Resonance
% in Medicine 42(5):952-962, 1999. F. A. Breuer et al., "Controlled aliasing in volumetric parallel
% imaging (2D CAIPIRINHA)", 55(3):549-556, 2006.
%
% See also: ctessel_espirit
function image = ctessel_sense(folded, maps, full_size, covariance, expected, reference, scale, aliases)
  if nargin < 2 || nargin > 8, print_usage(); end
  who = 'ctessel_sense';
  if nargin < 3, full_size = []; end
  if nargin < 4, covariance = []; end
  if nargin < 5, expected = []; end
  if nargin < 6, reference = []; end
  if nargin < 7, scale = 1; end
  if nargin < 8, aliases = []; end

  check_array(who, 'FOLDED', folded);
  check_array(who, 'MAPS', maps);
  check_shapes(who, folded, maps);
  full_size = check_full_size(who, full_size, folded, maps);
  coils = size(folded, 4);
  check_array(who, 'COVARIANCE', covariance);
  if ~isempty(covariance) && ~isequal(size(covariance), [coils coils])
    reject_shape(who, 'COVARIANCE', sprintf('%dx%d for %d coils', coils, coils, coils), covariance);
  end
  check_regularisation(who, folded, expected, reference, maps);
  check_positive(who, 'SCALE', scale);
  check_aliases(who, aliases, maps, full_size, folded);
  check_count(who, 'FOLDED', folded, numel(folded));
  check_count(who, 'MAPS', maps, numel(maps));
  check_count(who, 'FULL_SIZE', full_size, prod([full_size, size(maps, 6), size(folded)(5:end)]));

  image = __ctessel__('sense', folded, maps, full_size, covariance, expected, reference, scale, aliases);
  warn_of_singular(who, image, folded);
end

function warn_of_singular(who, image, folded)
  lost = nnz(~isfinite(image));
  if lost > 0 && all(isfinite(folded(:)))
    warning('ctessel:singular', ['%s: %d voxels are not finite; MAPS must have a coil that sees ' ...
                                 'each of the lines that alias'], who, lost);
  end
end

function check_count(who, name, given, count)
  if count > double(intmax), reject(who, name, 'at most 2147483647 values', given); end
end

function check_shapes(who, folded, maps)
  if isempty(folded), reject_shape(who, 'FOLDED', 'not empty', folded); end
  if ndims(folded) > 13, reject_shape(who, 'FOLDED', 'of at most 13 dimensions', folded); end
  if isempty(maps), reject_shape(who, 'MAPS', 'not empty', maps); end
  expected = sprintf('x, y, z, %d coils, %d locations, as FOLDED has', size(folded, 4), size(folded, 8));
  if size(maps, 4) ~= size(folded, 4) || size(maps, 5) ~= size(folded, 8) || ndims(maps) > 6
    reject_shape(who, 'MAPS', expected, maps);
  end
end

function full_size = check_full_size(who, full_size, folded, maps)
  if isempty(full_size), full_size = [size(folded, 1), size(maps, 2), size(maps, 3)]; end
  given = full_size;
  full_size = check_whole(who, 'FULL_SIZE', full_size, [2 3], 1, double(intmax));
  if numel(full_size) == 2, full_size(3) = size(folded, 3); end
  if full_size(1) ~= size(folded, 1)
    reject(who, 'FULL_SIZE', sprintf('%d along x, which is not folded', size(folded, 1)), given);
  end
  least = [size(folded, 2), size(folded, 3)];
  if any(full_size(2:3) < least)
    reject(who, 'FULL_SIZE', sprintf('at least %d x %d along y and z, as FOLDED is', least), given);
  end
end

function check_aliases(who, aliases, maps, full_size, folded)
  check_array(who, 'ALIASES', aliases);
  if isempty(aliases) && size(maps, 6) == 1, return, end
  if ~isequal([size(maps, 2), size(maps, 3)], full_size(2:3))
    reject_shape(who, 'MAPS', sprintf('%d x %d along y and z, as FULL_SIZE', full_size(2:3)), maps);
  end
  factors = full_size(2:3) ./ [size(folded, 2), size(folded, 3)];
  if any(factors ~= fix(factors))
    reject(who, 'FULL_SIZE', sprintf('multiples of %d and %d along y and z, as FOLDED is', ...
                                     size(folded, 2), size(folded, 3)), full_size);
  end
  if isempty(aliases), return, end
  [y, z] = ndgrid(0:size(folded, 2) - 1, 0:size(folded, 3) - 1);
  met = zeros(full_size(2:3));
  if isequal(size(aliases), [prod(factors), 2]) && isreal(aliases) && all(fix(aliases(:)) == aliases(:))
    for offset = double(aliases)'
      at = sub2ind(size(met), mod(y + offset(1), size(met, 1)) + 1, mod(z + offset(2), size(met, 2)) + 1);
      met(at) = 1;
    end
  end
  if ~all(met(:))
    reject_shape(who, 'ALIASES', sprintf('%d x 2 whole numbers that meet every voxel once', prod(factors)), aliases);
  end
end

function check_regularisation(who, folded, expected, reference, maps)
  check_array(who, 'EXPECTED', expected);
  check_array(who, 'REFERENCE', reference);
  if isempty(expected) ~= isempty(reference)
    names = {'EXPECTED', 'REFERENCE'};
    names = names([isempty(expected) + 1, 2 - isempty(expected)]);
    reject_shape(who, names{2}, ['given together with ' names{1}], []);
  end
  if isempty(expected), return, end
  grid = [size(maps, 1), size(maps, 2), size(maps, 3), size(folded, 8)];
  if ~isequal([size(expected, 1), size(expected, 2), size(expected, 3), size(expected, 4)], grid) || ...
     ndims(expected) > 4
    reject_shape(who, 'EXPECTED', ['x, y, z, location of MAPS, ' mat2str(grid)], expected);
  end
end

%!function [folded, lines] = fold(full, n)   % n lines along y, the centre in place
%!  N = size(full, 2);
%!  first = ceil((N - n) / 2);
%!  lines = mod((0:N - 1) - first, n) + 1;
%!  folded = zeros([size(full, 1), n, size(full)(3:end)]);
%!  for y = 1:N
%!    folded(:, lines(y), :) += full(:, y, :);
%!  end
%!endfunction
%!function maps = coil_maps(nx, ny, coils)
%!  [x, y] = ndgrid(((0:nx - 1) - nx / 2) / nx, ((0:ny - 1) - ny / 2) / ny);
%!  angles = reshape((0:coils - 1) * 2 * pi / coils, 1, 1, 1, coils);
%!  maps = exp(-(x - cos(angles)) .^ 2 - 2 * (y - sin(angles)) .^ 2 + .2i * angles);
%!endfunction
%!shared maps, object, covariance
%! maps = coil_maps(12, 24, 6);
%! object = complex(rand(12, 24), rand(12, 24)) + .2;
%! a = complex(rand(6) - .5, rand(6) - .5);
%! covariance = a * a' + eye(6);
%!test % consistent data are solved exactly whatever the covariance, for whole and fractional factors
%! for n = [24 12 8 10 16]
%!   folded = fold(maps .* object, n);
%!   for psi = {[], covariance}
%!     image = ctessel_sense(folded, maps, [12 24], psi{1});
%!     assert(image, single(object), 1e-3)
%!   end
%! end
%! assert(ctessel_sense(folded, maps), ctessel_sense(folded, maps, [12 24 1]))
%!test % noise: each voxel is the weighted least-squares solution of its aliases
%! folded = fold(maps .* object, 12) + complex(rand(12, 12, 1, 6), rand(12, 12, 1, 6));
%! image = ctessel_sense(folded, maps, [], covariance);
%! [~, line] = fold(maps, 12);
%! for x = [1 5 12]
%!   for y = 1:12
%!     at = find(line == y);
%!     S = squeeze(maps(x, at, 1, :)).';
%!     want = (S' / covariance * S) \ (S' / covariance * squeeze(folded(x, y, 1, :)));
%!     assert(image(x, at), single(want.'), 1e-3)
%!   end
%! end
%!test % a shifted lattice: aliases by their offsets, alone and with a set of zeros beside
%! [x, y, z] = ndgrid((0:2) / 3, (0:7) / 8 - .5, (0:3) / 4 - .5);
%! angles = reshape((0:7) * pi / 4, 1, 1, 1, 8);
%! volume_maps = exp(-(y - cos(angles)) .^ 2 - (z - sin(2 * angles)) .^ 2 + 1i * (x + z) .* angles);
%! volume = complex(rand(3, 8, 4), rand(3, 8, 4)) + .2;
%! aliases = [0 0; 4 0; 2 2; -2 6];
%! folded = zeros(3, 4, 2, 8);
%! for offset = aliases'
%!   for y = 0:3, for z = 0:1
%!     at = [mod(y + 2 + offset(1), 8), mod(z + 1 + offset(2), 4)] + 1;
%!     folded(:, y + 1, z + 1, :) += volume_maps(:, at(1), at(2), :) .* volume(:, at(1), at(2));
%!   end, end
%! end
%! image = ctessel_sense(folded, volume_maps, [], [], [], [], 1, aliases);
%! assert(image, single(volume), 1e-3)
%! two = cat(6, volume_maps, 0 * volume_maps);
%! image = ctessel_sense(folded, two, [], [], ones(3, 8, 4), 1, 1e-6, aliases);
%! assert(image, single(cat(4, volume, 0 * volume)), 1e-3)
%! fail('ctessel_sense(folded, volume_maps, [], [], [], [], 1, aliases(1:3, :))', 'ALIASES must be 4 x 2 whole')
%! fail('ctessel_sense(folded(:, 1:3, :, :), two)', 'FULL_SIZE must be multiples of 3 and 2')
%!test % further dimensions and locations
%! two = cat(5, maps, maps(:, end:-1:1, :, :));
%! stack = complex(rand(12, 24, 1, 1, 2, 1, 1, 2, 3), rand(12, 24, 1, 1, 2, 1, 1, 2, 3));
%! folded = fold(stack .* permute(two, [1:4 6:8 5]), 12);
%! image = ctessel_sense(folded, two);
%! assert(size(image), size(stack))
%! assert(image, single(stack), 1e-3)
%!test % regularisation pulls the result to 0, outside the maps it is 0, inputs stay
%! holes = maps;
%! holes(1:3, :, :, :) = 0;
%! folded = fold(holes .* object, 12);
%! kept = folded + 0;
%! expected = ones(12, 24);
%! plain = ctessel_sense(folded, holes);
%! weak = ctessel_sense(folded, holes, [], [], expected, object, 1e-3);
%! strong = ctessel_sense(folded, holes, [], [], expected, object, 100);
%! assert(~any(plain(1:3, :)(:)))
%! assert(norm(weak(:) - plain(:)) < 1e-2 * norm(plain(:)))
%! assert(norm(strong(:)) < .1 * norm(plain(:)))
%! assert(folded, kept)
%!warning <voxels are not finite; MAPS must have a coil that sees>
%! ctessel_sense(ones(12, 12, 1, 6), maps .* (1:24 < 20));
%!test % real values
%! real_maps = abs(maps);
%! lastwarn('')
%! image = ctessel_sense(fold(real_maps .* abs(object), 12), real_maps);
%! assert(image, single(abs(object)), 1e-2)
%! assert(lastwarn(), '')
%!function n = bytes(field)   % of this process
%!  n = 1024 * str2double(regexp(fileread('/proc/self/status'), [field ':\s*(\d+)'], 'tokens'){1}{1});
%!endfunction
%!testif ; exist('/proc/self/clear_refs', 'file') % samples are taken as they lie: nothing is copied
%! many = complex(rand(128, 96, 8, 16, 'single'), 1);
%! folded = many(:, 1:48, :, :);
%! ctessel_sense(folded(:, :, 1, :), many(:, :, 1, :));
%! id = fopen('/proc/self/clear_refs', 'w'); fputs(id, '5'); fclose(id);   % the peak starts anew
%! before = bytes('VmRSS');
%! image = ctessel_sense(folded, many);
%! assert(bytes('VmHWM') - before - 8 * numel(image) < 8 * numel(many) / 3)
%!error <Invalid call> ctessel_sense(1)
%!error <ctessel_sense: FOLDED must be a full numeric or logical array; got 1x1 cell array>
%! ctessel_sense({1}, maps)
%!error <MAPS must be x, y, z, 4 coils, 1 locations, as FOLDED has; got 12x24x1x6>
%! ctessel_sense(ones(12, 12, 1, 4), maps)
%!error <MAPS must be x, y, z, 6 coils, 2 locations> ctessel_sense(ones(12, 12, 1, 6, 1, 1, 1, 2), maps)
%!error <FULL_SIZE must be 12 along x, which is not folded; got \[24 24\]>
%! ctessel_sense(ones(12, 12, 1, 6), maps, [24 24])
%!error <FULL_SIZE must be at least 12 x 1 along y and z, as FOLDED is; got \[12 8\]>
%! ctessel_sense(ones(12, 12, 1, 6), maps, [12 8])
%!error <COVARIANCE must be 6x6 for 6 coils; got 5x5> ctessel_sense(ones(12, 12, 1, 6), maps, [], eye(5))
%!error <REFERENCE must be given together with EXPECTED; got 0x0>
%! ctessel_sense(ones(12, 12, 1, 6), maps, [], [], ones(12, 24))
%!error <EXPECTED must be given together with REFERENCE>
%! ctessel_sense(ones(12, 12, 1, 6), maps, [], [], [], ones(12, 24))
%!error <EXPECTED must be x, y, z, location of MAPS, \[12 24 1 1\]; got 12x12>
%! ctessel_sense(ones(12, 12, 1, 6), maps, [], [], ones(12), ones(12, 24))
%!error <SCALE must be a positive number; got 0>
%! ctessel_sense(ones(12, 12, 1, 6), maps, [], [], ones(12, 24), ones(12, 24), 0)
%!error <FULL_SIZE must be 2 or 3 whole numbers> ctessel_sense(ones(12, 12, 1, 6), maps, 12)
%!error <ctessel_sense: FULL_SIZE must be at most 2147483647 values; got \[12 50000 50000\]>
%! ctessel_sense(ones(12, 12, 1, 6), maps, [12 50000 50000])

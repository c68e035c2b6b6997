% Coil sensitivities from fully sampled k-space around its centre (ESPIRiT).
%
%   maps = ctessel_espirit(calibration, target)
%   maps = ctessel_espirit(calibration, target, kernel, threshold, crop, sets)
%   [maps, eigenvalues] = ctessel_espirit(...)
%
%   calibration   k-space x, y, z, coil, line 0 at sample floor(n/2) + 1 of each dimension. Single or
%                 double, without gaps.
%   target        extents [X Y] or [X Y Z] of the maps, over the field of view of CALIBRATION
%   kernel        samples of the window that slides over CALIBRATION, 6 if left out
%   threshold     eigenvalues of the calibration matrix above this share of the largest one are
%                 signal; 0.001 if left out
%   crop          a voxel with an eigenvalue (at most 1) up to this is outside of the object; 0.8 if
%                 left out
%   sets          sets of maps, 1 if left out. A second set describes voxels in which the object folds onto
%                 itself, because the field of view is smaller than the object.
%   maps          complex single, X x Y x Z x coil x set. The squared magnitudes of the coils sum to 1 in the
%                 object, and to 0 outside. An unfolded image has the phase of the sum of the coils,
%                 weighted with their magnitudes.
%   eigenvalues   single, X x Y x Z x set
%
% Example: a disc with four coils.
%
%   [x, y] = ndgrid(((0:31) - 16) / 16);
%   angles = reshape((0:3) * pi / 2, 1, 1, 1, 4);
%   coils = exp(-(x - cos(angles)) .^ 2 - (y - sin(angles)) .^ 2) .* (x .^ 2 + y .^ 2 < 0.6);
%   kspace = fftshift(fftshift(fft2(ifftshift(ifftshift(coils, 1), 2)), 1), 2);
%   maps = ctessel_espirit(kspace(5:28, 5:28, :, :), [32 32]);
%
% Literature: M. Uecker et al., "ESPIRiT - an eigenvalue approach to autocalibrating parallel MRI",
% Magnetic Resonance in Medicine 71(3):990-1001, 2014.
%
% See also: ctessel_sense
function [maps, eigenvalues] = ctessel_espirit(calibration, target, kernel, threshold, crop, sets)
  if nargin < 2 || nargin > 6, print_usage(); end
  who = 'ctessel_espirit';
  if nargin < 3, kernel = 6; end
  if nargin < 4, threshold = 0.001; end
  if nargin < 5, crop = 0.8; end
  if nargin < 6, sets = 1; end

  check_array(who, 'CALIBRATION', calibration);
  if isempty(calibration) || ndims(calibration) > 4
    reject_shape(who, 'CALIBRATION', 'x, y, z, coil, none of them empty', calibration);
  end
  if ~all(isfinite(calibration(:))), reject_shape(who, 'CALIBRATION', 'finite', calibration); end
  target = check_whole(who, 'TARGET', target, [2 3], 1, double(intmax));
  if numel(target) == 2, target(3) = 1; end
  kernel = check_whole(who, 'KERNEL', kernel, 1, 1, double(intmax));
  check_positive(who, 'THRESHOLD', threshold);
  if threshold >= 1, reject(who, 'THRESHOLD', 'less than 1', threshold); end
  if ~isreal(crop) || ~isscalar(crop) || ~(crop >= 0 && crop <= 1)
    reject(who, 'CROP', 'a number from 0 to 1', crop);
  end
  sets = check_whole(who, 'SETS', sets, 1, 1, size(calibration, 4));
  [maps, eigenvalues] = __ctessel__('espirit', calibration, target, kernel, threshold, crop, sets);
end

%!test % maps of a disc are its sensitivities, but for a phase and their length
%! [x, y] = ndgrid(((0:31) - 16) / 16);
%! angles = reshape((0:3) * pi / 2, 1, 1, 1, 4);
%! disc = x .^ 2 + y .^ 2 < 0.6;
%! coils = exp(-(x - cos(angles)) .^ 2 - (y - sin(angles)) .^ 2 + .3i * angles);
%! kspace = fftshift(fftshift(fft2(ifftshift(ifftshift(coils .* disc, 1), 2)), 1), 2);
%! [maps, eigenvalues] = ctessel_espirit(kspace(5:28, 5:28, :, :), [32 32]);
%! together = abs(sum(conj(maps) .* coils, 4)) ./ sqrt(sum(abs(coils) .^ 2, 4));
%! assert(min(together(disc)) > .99)
%! assert(sum(abs(maps) .^ 2, 4)(disc), ones(nnz(disc), 1, 'single'), 1e-5)
%! assert(any(eigenvalues(:) < .8) && ~any(maps(eigenvalues <= .8)))
%!test % two sets unfold an object in half of its field, as one does not
%! [x, y] = ndgrid(((0:31) - 16) / 16, ((0:47) - 24) / 16);
%! angles = reshape((0:5) * pi / 3, 1, 1, 1, 6);
%! coils = exp(-(x - cos(angles)) .^ 2 - (y / 1.4 - sin(angles)) .^ 2 + .3i * angles) .* ...
%!   (x .^ 2 + (y / 1.4) .^ 2 < 0.8) .* (1 + .5 * cos(9 * x + 7 * y));
%! tight = coils(:, 9:40, :, :);
%! tight(:, [1:8, 25:32], :, :) += coils(:, [41:48, 1:8], :, :);
%! kspace = fftshift(fftshift(fft2(ifftshift(ifftshift(tight, 1), 2)), 1), 2);
%! error_of = @(maps) norm(sqrt(sum(abs(ctessel_sense(tight, maps)) .^ 2, 4)) - sqrt(sum(abs(tight) .^ 2, 4)), 'fro');
%! warning('off', 'ctessel:singular', 'local');
%! maps = ctessel_espirit(kspace(5:28, 5:28, :, :), [32 32], 6, .001, 0, 2);
%! both = error_of(permute(maps, [1 2 3 4 6 5]));
%! assert(both < .2 * error_of(maps(:, :, :, :, 1)))
%!error <SETS must be> ctessel_espirit(ones(8, 8, 1, 2), [8 8], 6, .1, .8, 3)
%!error <CALIBRATION must be a full numeric or logical array; got 1x1 cell array> ctessel_espirit({1}, [4 4])
%!error <CALIBRATION must be finite> ctessel_espirit([1 NaN], [4 4])
%!error <TARGET must be 2 or 3 whole numbers> ctessel_espirit(ones(8), 4)
%!error <THRESHOLD must be less than 1> ctessel_espirit(ones(8), [8 8], 6, 1)
%!error <CROP must be a number from 0 to 1> ctessel_espirit(ones(8), [8 8], 6, .1, 2)

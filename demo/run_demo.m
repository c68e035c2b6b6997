% run_demo(folder [, file])
%
% Homodyne reconstruction of partial-Fourier data, with pictures in FOLDER and a table: of a phantom
% (one and two partial axes), or of the fully sampled k-space in FILE (see read_kspace).
function run_demo(folder, file)
  if nargin < 2
    kspace = phantom_kspace(128, 8);
    reconstruct(folder, 'phantom_ky', kspace, {[], [-20 63], []});
    reconstruct(folder, 'phantom_kx_ky', kspace, {[-28 63], [-28 63], []});
  else
    kspace = read_kspace(file);
    ny = size(kspace, 2);
    [~, name] = fileparts(file);
    name = regexprep(name, '[^A-Za-z0-9_.-]', '_');  % the shell will see it
    % 84 of 128 lines, and the same share of any other axis
    reconstruct(folder, name, kspace, {[], [-round(ny * 20 / 128), ceil(ny / 2) - 1], []});
  end
end

function reconstruct(folder, name, kspace, ranges)
  full = sqrt(sum(abs(to_image(kspace)) .^ 2, 4));
  [zero_filled, sharp, seconds] = homodyne_images(kspace, ranges);

  [e0, d0] = picture_quality(zero_filled, full, ranges);
  [e1, d1] = picture_quality(sharp, full, ranges);
  white = quantile_of(full, .998);
  show(folder, name, {'full', full, white, 'fully sampled'
                      'zero_filled', zero_filled, white, sprintf('zero-filled, detail %.2f', d0)
                      'homodyne', sharp, white, sprintf('homodyne, detail %.2f', d1)
                      'error_zero_filled', zero_filled - full, white / 4, ...
                      sprintf('zero-filled, error x 4 (%.3f)', e0)
                      'error_homodyne', sharp - full, white / 4, ...
                      sprintf('homodyne, error x 4 (%.3f)', e1)});

  printf('%s: %s samples, %s\n', name, mat2str(size(kspace)), described(ranges, size(kspace)));
  printf('  %-12s %7s %7s\n', '', 'error', 'detail');
  printf('  %-12s %7.3f %7.3f\n', 'zero-filled', e0, d0);
  printf('  %-12s %7.3f %7.3f   filter %.1f ms, multiply %.1f ms\n\n', 'homodyne', e1, d1, ...
         1000 * seconds);
end

function text = described(ranges, extents)
  text = '';
  for d = find(~cellfun(@isempty, ranges))
    text = [text sprintf('k%c lines %d to %d (%d of %d) ', 'xyz'(d), ranges{d}, ...
                         diff(ranges{d}) + 1, extents(d))];
  end
end

% One grey PNG each, and all of them with captions in NAME.png. Errors share one scale.
function show(folder, name, pictures)
  files = '';
  for p = pictures'
    save_picture(folder, [name '_' p{1}], p{2}, p{3});
    files = [files sprintf(' -label "%s" "%s"', p{4}, fullfile(folder, [name '_' p{1} '.png']))];
  end
  font = '/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf';
  sheet = fullfile(folder, [name '.png']);
  status = system(sprintf(['gm montage -font %s -pointsize 12 -tile 5x1 -geometry 256x256+4+4 ' ...
                           '%s "PNG8:%s"'], font, files, sheet));
  if status ~= 0
    error('the overview %s could not be written by gm montage', sheet);
  end
end

function value = quantile_of(image, share)
  sorted = sort(image(:));
  value = sorted(ceil(share * numel(sorted)));
end

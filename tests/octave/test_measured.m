% Whole reconstructions of measured data against the same steps in m-code.

folder = getenv('CTESSEL_DATA');
if isempty(folder), folder = fullfile(pwd, '..', '..', '..', 'shared', 'data'); end
if ~exist(fullfile(folder, 'brain16_ksp.cfl'), 'file')
  printf('SKIPPED: no measured data in %s\n', folder);
  return
end
for name = {'brain16_ksp', 'brain2_body_ksp', 'brain1_t1sag_ksp', 'phantom1_grid_ksp', 'phantom32_ksp'}
  kspace = read_kspace(fullfile(folder, [name{1} '.cfl']));
  n = size(kspace, 2);
  ranges = {[], [-round(n * 20 / 128), ceil(n / 2) - 1], []};
  [~, sharp] = homodyne_images(kspace, ranges);

  lines = (0:n - 1) - floor(n / 2);
  data = kspace .* (lines >= ranges{2}(1));
  [weighted, low] = homodyne_reference(data, ranges);
  centre = zeros(size(data), 'single');
  centre(:, abs(lines) <= -ranges{2}(1), :, :) = low;
  phase = double(to_image(centre));
  want = real(double(to_image(weighted)) .* conj(phase)) ./ abs(phase);
  want = sqrt(sum(want .^ 2, 4));
  difference = max(abs(sharp(:) - want(:))) / max(want(:));
  printf('%s: largest difference to the m-code %.1e of the maximum\n', name{1}, difference);
  assert(difference < 1e-5);
end
disp('measured: all checks passed');

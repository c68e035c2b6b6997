% tour(folder)   a page of pictures in FOLDER: homodyne, SENSE with its noise, gradients
%
% From the top of the checkout, with the package installed and loaded:
%
%   addpath octave demo, tour('build')
function tour(folder)
  kspace = phantom_kspace(128, 8);
  full = ctessel_sos(to_image(kspace));

  % 84 of 128 lines along ky.
  sharp = ctessel_sos(homodyne_recon(kspace, [], [-20 63]));
  zero_filled = ctessel_sos(to_image(kspace .* ((-64:63) >= -20)));
  picture(folder, 'homodyne', [full, sharp, zero_filled], max(full(:)));
  disp('homodyne.png: all lines, homodyne from 84 of 128, the same zero-filled');

  % Every second line. The maps come from the centre of k-space, smoothed by a ringing filter.
  low = to_image(ctessel_ringing_filter(kspace, [.9 .9], [32 32]));
  maps = low ./ ctessel_sos(low);  % air included: without any coil its aliases could not be solved
  folded = 2 * to_image(kspace .* (mod(-64:63, 2) == 0));
  folded = folded(:, 33:96, :, :);
  unfolded = abs(ctessel_sense(folded, maps));

  % A hundred images of only noise: their standard deviation shows the g-factor, from 1 up.
  noise = complex(randn(128, 64, 1, 8, 1, 1, 1, 1, 100), randn(128, 64, 1, 8, 1, 1, 1, 1, 100));
  amplification = std(ctessel_sense(noise, maps), 0, 9) / sqrt(2);
  picture(folder, 'sense', [ctessel_sos(folded), unfolded], max(full(:)));
  picture(folder, 'sense_noise', amplification, max(amplification(:)));
  disp('sense.png: every second line, folded and unfolded');
  printf('sense_noise.png: noise is amplified up to %.1f times, %.1f on average\n', max(amplification(:)), ...
         mean(amplification(:)));

  % A straight grid, encoded by gradients with higher terms.
  [x, y] = ndgrid(-200:200, -200:200);
  x(mod(x, 40) ~= 0 & mod(y, 40) ~= 0) = NaN;
  coeff_x = [0 0; 0 1; 0 0; 0 -.03; 0 0; 0 .004];
  [xd, yd] = ctessel_geometry(x, y, 0 * x, coeff_x, coeff_x, [0 1], 250);
  at = round([xd(:), yd(:)]) + 251;
  at = at(all(at >= 1 & at <= 501, 2), :);
  picture(folder, 'geometry', accumarray(at, 1, [501 501]) > 0, 1);
  disp('geometry.png: a straight grid as gradients with higher terms see it');
end

function picture(folder, name, values, white)
  imwrite(uint8(255 * min(abs(values)' / white, 1)), fullfile(folder, [name '.png']));
end

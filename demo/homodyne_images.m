% [zero_filled, sharp, seconds] = homodyne_images(kspace, ranges)
%
% Both reconstructions of a partial-Fourier scan, combined over coils by root sum of squares.
%   kspace   single, kx x ky x kz x coils, fully sampled; the lines outside RANGES are dropped here
%   ranges   {kx, ky, kz}: [first last] line from the centre, or [] for a full axis
%   seconds  time in [filter multiply]
function [zero_filled, sharp, seconds] = homodyne_images(kspace, ranges)
  data = kspace;
  where = repmat({':'}, 1, 4);
  for d = 1:3
    if isempty(ranges{d}), continue, end
    n = size(data, d);
    lines = (0:n - 1) - floor(n / 2);
    measured = shiftdim(lines(:) >= ranges{d}(1) & lines(:) <= ranges{d}(2), 1 - d);
    data = data .* measured;
    where{d} = floor(n / 2) + 1 + (ranges{d}(1):-ranges{d}(1));  % mirror images of each other
  end
  zero_filled = combined(to_image(data));

  data = single(data) + 0;  % a copy of its own: the filter works in place
  tic
  low = homodyne('filter', data, ranges{:});
  seconds = toc;
  centre = zeros(size(data), 'single');
  centre(where{:}) = low;

  image = to_image(data);
  phase = to_image(centre);
  tic
  homodyne('multiply', image, phase);
  seconds(2) = toc;
  image(phase == 0) = 0;
  sharp = combined(image);
end

function image = combined(images)
  image = sqrt(sum(abs(images) .^ 2, 4));
end

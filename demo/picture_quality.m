% [error, detail] = picture_quality(image, full, ranges)
%
%   error   root-mean-square difference to the fully sampled picture over the object (where that is
%           above 5 % of its maximum), relative to the picture's own root mean square
%   detail  how much of the full picture's fine structure is there: both pictures without the lines
%           of the symmetric centre, the image's projection on the full one. 1 is all of it.
function [error, detail] = picture_quality(image, full, ranges)
  object = full > .05 * max(full(:));
  error = norm(image(object) - full(object)) / norm(full(object));
  fine = fine_part(full, ranges);
  detail = sum(fine_part(image, ranges)(:) .* fine(:)) / sum(fine(:) .^ 2);
end

function fine = fine_part(image, ranges)
  low = image;
  for d = 1:3
    if isempty(ranges{d}), continue, end
    n = size(image, d);
    lines = ifftshift((0:n - 1) - floor(n / 2));
    inner = shiftdim(abs(lines(:)) <= -ranges{d}(1), 1 - d);
    low = real(ifft(fft(low, [], d) .* inner, [], d));
  end
  fine = image - low;
end

% Whole reconstruction of a phantom, where the truth is known.

kspace = phantom_kspace(128, 8);
full = sqrt(sum(abs(to_image(kspace)) .^ 2, 4));
ranges = {[], [-20 63], []};
[zero_filled, sharp] = homodyne_images(kspace, ranges);
[e0, d0] = picture_quality(zero_filled, full, ranges);
[e1, d1] = picture_quality(sharp, full, ranges);
printf('phantom: error %.3f against %.3f zero-filled, detail %.3f against %.3f\n', e1, e0, d1, d0);
assert(e1 < e0 / 5);    % its phase is smooth, so most of the error goes
assert(d1 > 0.97 && d0 < 0.7);

% The example of the help text.
text = evalc('help homodyne');
from = strfind(text, 'to_image = @');
to = strfind(text, 'imagesc(');
example = text(from:to - 1);
shown = sharp;
eval(example);
assert(sqrt(sum(real(image) .^ 2, 4)), shown, 1e-5 * max(shown(:)));
disp('phantom: all checks passed');

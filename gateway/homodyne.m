% Homodyne reconstruction of partial-Fourier MRI data.
%
%   low = homodyne('filter', data, kx, ky, kz)
%   homodyne('multiply', data, low)
%
% Both operations change DATA IN PLACE: the variable itself and every other variable that shares
% its storage. The host shares storage wherever it can: "b = data", data(:), reshape, squeeze,
% single(data) of single data, and even contiguous parts such as coil = data(:, :, 1, 2) change
% together. Make a real copy first if you need the original, or if DATA is such a part:
%
%   data = original + 0;          % a separate copy, safe to change
%
% Values that the host keeps in a compact form are the exception: of a diagonal matrix (eye) or a
% single number it may pass a copy, and DATA stays as it is. full(x) makes a plain array.
%
% low = homodyne('filter', DATA, KX, KY, KZ) weights k-space.
%   DATA        single, real or complex, at least 1 dimension: kx, ky, kz, then coils, slices ...
%               Centred: on an axis of N samples line 0 is sample floor(N/2) + 1, as fftshift
%               leaves it. Lines that were not measured hold any finite value; their weight is 0.
%   KX, KY, KZ  sampled range [first last] of each axis in lines from the centre, double, 1x2 or
%               2x1; [] for an axis without filter. Axes are filtered where |first + last| > 1.
%   low         complex single: the unweighted symmetric centre of k-space, lines first .. -first
%               along each filtered axis, everything along the others.
%   The weight along a filtered axis is 0 on the missing side, 1 - t^2 and 1 + t^2 across the
%   symmetric centre (t from 0 at line 0 to 1 at its edge) and 2 beyond. DATA is multiplied by the
%   F-th root of the product of the weights of the F filtered axes.
%
%   The missing lines must lie on the negative side, and the range must cover at least 0.55 of
%   2 * last + 1 lines. Any other asymmetric range is REJECTED WITHOUT A MESSAGE: the axis is left
%   unweighted and low keeps only its first position, so check size(low). Flip the data (and the
%   range) for scans that miss the positive side. A range that reaches beyond the axis has no mirror
%   image there: low then keeps one position or none. Ranges must be full, not sparse.
%
% homodyne('multiply', DATA, LOW) removes the phase of a low-resolution image.
%   DATA        single image, real or complex. Every sample d becomes real(d * conj(L) / abs(L)),
%               its imaginary part 0. (The host then may show DATA as complex with zeros.)
%   LOW         single, with as many dimensions as DATA; interpolated linearly over the first
%               three where any extent differs. Where it is exactly 0, DATA becomes NaN. Volumes
%               (beyond the third dimension) that LOW does not have stay as they are.
%   There is no output.
%
% Example: lines -20 .. 63 of 128 were measured along the second dimension.
%
%   to_image = @(k) fftshift(fftshift(ifft2(ifftshift(ifftshift(k, 1), 2)), 1), 2);
%   data = single(kspace) + 0;                          % 128 x 128, or 128 x 128 x 1 x coils
%   low = homodyne('filter', data, [], [-20 63], []);   % data is weighted now, low is not
%   centre = zeros(size(data), 'single');
%   centre(:, 45:85, :) = low(:, :, :);                 % line 0 is sample 65, so -20 .. 20
%   image = to_image(data);
%   low = to_image(centre);
%   homodyne('multiply', image, low);                   % image is real now, and sharp
%   image(low == 0) = 0;                                % an empty voxel has no phase: NaN until here
%   imagesc(sqrt(sum(real(image) .^ 2, 4)))
%
% Literature: D. C. Noll, D. G. Nishimura, A. Macovski, "Homodyne detection in magnetic resonance
% imaging", IEEE Transactions on Medical Imaging 10(2):154-163, 1991.

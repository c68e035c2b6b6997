% kspace = phantom_kspace(n, coils)   single, n x n x 1 x coils, centred
%
% A head of ellipses (the Shepp-Logan layout with raised contrasts), seen by coils on a ring through
% a smooth phase, with noise. It is drawn four times finer than it is sampled, so that its k-space is
% cut off as a scanner's is.
function kspace = phantom_kspace(n, coils)
  fine = 4 * n;
  [y, x] = meshgrid(((0:fine - 1) - fine / 2) / (fine / 2));
  head = zeros(fine);
  %          value  half axes       centre          angle in degrees
  ellipses = [1    .69   .92     0      0       0
              -.8  .6624 .8740   0      -.0184  0
              -.2  .1100 .3100   .22    0       -18
              -.2  .1600 .4100   -.22   0       18
              .1   .2100 .2500   0      .35     0
              .1   .0460 .0460   0      .1      0
              .1   .0460 .0460   0      -.1     0
              .1   .0460 .0230   -.08   -.605   0
              .1   .0230 .0230   0      -.606   0
              .1   .0230 .0460   .06    -.605   0];
  for e = ellipses'
    c = cosd(e(6));
    s = sind(e(6));
    u = (x - e(4)) * c + (y + e(5)) * s;
    v = (y + e(5)) * c - (x - e(4)) * s;
    inside = (u / e(2)) .^ 2 + (v / e(3)) .^ 2 <= 1;
    head(inside) += e(1);
  end
  head = head .* exp(1i * (.6 + 1.1 * x - .8 * y + .5 * x .* y));

  kspace = zeros(n, n, 1, coils, 'single');
  keep = fine / 2 + (-floor(n / 2):ceil(n / 2) - 1) + 1;
  randn('state', 20);
  for c = 1:coils
    angle = 2 * pi * c / coils;
    near = exp(-((x - cos(angle)) .^ 2 + (y - sin(angle)) .^ 2) / 1.6 + 1i * angle);
    full = fftshift(fft2(ifftshift(head .* near))) / 16;
    noise = complex(randn(n), randn(n)) * n * .004;
    kspace(:, :, 1, c) = full(keep, keep) + noise;
  end
end

% Positions at which non-linear gradients encode points; a distortion correction samples there.
%
%   [xd, yd, zd] = ctessel_geometry(x, y, z, coeff_x, coeff_y, coeff_z, r0)
%
%   x, y, z      points relative to the isocentre, real, three arrays of one shape, in the unit of R0
%   coeff_x      cosine terms of the x gradient, up to 14 x 12: row n + 1 is order n, column m + 1
%                degree m; read where n >= m >= 1. Missing entries count as 0.
%   coeff_y      sine terms of the y gradient, the same
%   coeff_z      zonal terms of the z gradient, a vector of up to 17: entry n + 1 is order n
%   r0           reference radius of the expansion
%   xd, yd, zd   encoded positions, single, the shape of X
%
% The functions are not normalised and have no Condon-Shortley phase. Rescale tables for other
% normalisations. Each gradient is divided by its linear coefficient, coeff_x(2, 2), coeff_y(2, 2) and
% coeff_z(2). Tables with only these return the points, within 0.1 mm for R0 = 250 mm, because the
% functions are looked up at 10000 samples of cos(theta).
%
% Example: a straight grid, encoded by gradients with a third-order term.
%
%   [x, y] = ndgrid(-200:50:200);
%   linear = [0 0; 0 1];
%   coeff_x = [0 0; 0 1; 0 0; 0 -0.02];
%   [xd, yd, zd] = ctessel_geometry(x, y, 0 * x, coeff_x, coeff_x, [0 1 0 0.03], 250);
%   plot(xd, yd, 'k', xd', yd', 'k')
%
% Literature: A. Janke et al., "Use of spherical harmonic deconvolution methods to compensate for
% nonlinear gradient effects on MRI images", Magnetic Resonance in Medicine 52(1):115-122, 2004.
function [xd, yd, zd] = ctessel_geometry(x, y, z, coeff_x, coeff_y, coeff_z, r0)
  if nargin ~= 7, print_usage(); end
  who = 'ctessel_geometry';
  check_real(who, 'X', x);
  if numel(x) > double(intmax), reject(who, 'X', 'at most 2147483647 points', x); end
  rest = {'Y', y; 'Z', z};
  for k = 1:2
    check_real(who, rest{k, :});
    if ~isequal(size(rest{k, 2}), size(x))
      reject_shape(who, rest{k, 1}, [size_text(x) ' like X'], rest{k, 2});
    end
  end
  check_table(who, 'COEFF_X', coeff_x, [14 12], [2 2]);
  check_table(who, 'COEFF_Y', coeff_y, [14 12], [2 2]);
  if isvector(coeff_z), coeff_z = coeff_z(:); end
  check_table(who, 'COEFF_Z', coeff_z, [17 1], [2 1]);
  check_positive(who, 'R0', r0);
  [xd, yd, zd] = __ctessel__('geometry', x, y, z, coeff_x, coeff_y, coeff_z, r0);
end

function check_table(who, name, table, most, linear)
  check_real(who, name, table);
  expected = sprintf('from %dx%d to %dx%d coefficients', linear, most);
  if ndims(table) > 2 || any(size(table) > most) || any(size(table) < linear)
    reject_shape(who, name, expected, table);
  end
  if table(linear(1), linear(2)) == 0
    expected = sprintf('a table with a linear coefficient, (%d, %d), other than 0', linear);
    reject(who, name, expected, table);
  end
end

%!shared x, y, z, linear
%! [x, y, z] = ndgrid(-200:80:200, -180:60:180, [-150 -20 0 90]);
%! linear = [0 0; 0 1];
%!test % linear gradients
%! [xd, yd, zd] = ctessel_geometry(x, y, z, 3 * linear, 5 * linear, [0 2], 250);
%! assert(size(xd), size(x))
%! inside = sqrt(x .^ 2 + y .^ 2 + z .^ 2) <= 250;
%! assert(xd(inside), single(x(inside)), 0.1)
%! assert(yd(inside), single(y(inside)), 0.1)
%! assert(zd(inside), single(z(inside)), 0.05)
%!test % higher terms, each gradient with its own table, against the formula in double
%! cx = zeros(14, 12); cy = cx; cz = zeros(17, 1);
%! cx(2, 2) = 2; cx(4, 2) = -.03; cx(4, 4) = .002; cx(6, 6) = 1e-5;
%! cy(2, 2) = 3; cy(4, 2) = .05; cy(6, 4) = -.0004;
%! cz(2) = 1; cz(4) = .06; cz(6) = -.02;
%! [xd, yd, zd] = ctessel_geometry(x, y, z, cx, cy, cz, 250);
%! r = sqrt(x .^ 2 + y .^ 2 + z .^ 2);
%! c = z ./ r; c(r == 0) = 0;
%! phi = atan2(y, x);
%! want = {0, 0, 0};
%! for n = 1:5
%!   p = legendre(n, c(:)');
%!   for m = 0:n
%!     h = (-1) ^ m * (r / 250) .^ n .* reshape(p(m + 1, :), size(r));
%!     if m > 0
%!       want{1} += cx(n + 1, m + 1) * h .* cos(m * phi) * 250 / 2;
%!       want{2} += cy(n + 1, m + 1) * h .* sin(m * phi) * 250 / 3;
%!     else
%!       want{3} += cz(n + 1) * h * 250;
%!     end
%!   end
%! end
%! assert(xd, single(want{1}), 0.15)
%! assert(yd, single(want{2}), 0.15)
%! assert(zd, single(want{3}), 0.15)
%!test
%! none = zeros(0, 3);
%! [xd, yd, zd] = ctessel_geometry(none, none, none, linear, linear, [0 1], 1);
%! assert({xd, yd, zd}, repmat({single(none)}, 1, 3))
%!error <ctessel_geometry: Y must be 1x2 like X; got 1x3>
%! ctessel_geometry([1 2], [1 2 3], [1 2], linear, linear, [0 1], 1)
%!error <COEFF_X must be from 2x2 to 14x12 coefficients; got 15x12>
%! ctessel_geometry(1, 1, 1, zeros(15, 12), linear, [0 1], 1)
%!error <COEFF_Y must be from 2x2 to 14x12 coefficients; got 14x13>
%! ctessel_geometry(1, 1, 1, linear, zeros(14, 13), [0 1], 1)
%!error <COEFF_Y must be a table with a linear coefficient, \(2, 2\), other than 0>
%! ctessel_geometry(1, 1, 1, linear, zeros(3), [0 1], 1)
%!error <COEFF_Z must be from 2x1 to 17x1 coefficients; got 1x1>
%! ctessel_geometry(1, 1, 1, linear, linear, 1, 1)
%!error <R0 must be a positive number; got -2> ctessel_geometry(1, 1, 1, linear, linear, [0 1], -2)
%!error <Z must be real; got 0\+1i> ctessel_geometry(1, 1, 1i, linear, linear, [0 1], 1)

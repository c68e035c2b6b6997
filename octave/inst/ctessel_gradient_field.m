% Field of non-linear gradients: encoded positions, their derivatives and their inverse.
%
%   out = ctessel_gradient_field(what, points, terms, r0)
%   [points, lost] = ctessel_gradient_field('inverse', encoded, terms, r0)
%
%   what     'position'      n x 3: where the gradients encode the points
%            'displacement'  n x 3: encoded position minus point
%            'jacobian'      n x 3 x 3: d encoded_a / d point_b at (:, a, b)
%            'determinant'   n x 1: of the Jacobian, with its sign
%            'inverse'       n x 3: the points that are encoded at POINTS; NaN where the iteration
%                            point = encoded - displacement does not converge; LOST is
%                            the number of these points
%   points   n x 3: x, y, z from the isocentre along the axes of the gradients, in the unit of R0
%   terms    k x 5: axis (1 x, 2 y, 3 z), kind (0 cosine, 1 sine), order n (1 to 25), degree m (0 to n),
%            value
%   r0       reference radius of the expansion
%
% A term is value (r / r0)^n P_n^m(cos theta) cos(m phi), or sin(m phi). P_n^m is not normalised and has
% no Condon-Shortley phase. Each gradient is divided by its linear term, which is required:
% [1 0 1 1 value] for x, [2 1 1 1 value] for y, [3 0 1 0 value] for z. Linear gradients move nothing.
% Everything is analytic and in double precision, without tables and without singular points.
%
% Example: the largest displacement over a plane, and how much a voxel is stretched there.
%
%   terms = [1 0 1 1 1; 2 1 1 1 1; 3 0 1 0 1; 1 0 3 1 -0.02; 3 0 3 0 0.03];
%   [x, y] = ndgrid(-200:50:200);
%   points = [x(:) y(:) 0 * x(:)];
%   moved = ctessel_gradient_field('displacement', points, terms, 250);
%   [most, k] = max(sqrt(sum(moved .^ 2, 2)));
%   stretch = ctessel_gradient_field('determinant', points(k, :), terms, 250)
%
% Literature: A. Janke et al., "Use of spherical harmonic deconvolution methods to compensate for
% nonlinear gradient effects on MRI images", Magnetic Resonance in Medicine 52(1):115-122, 2004.
%
% See also: ctessel_geometry
function [out, lost] = ctessel_gradient_field(what, points, terms, r0)
  if nargin ~= 4, print_usage(); end
  who = 'ctessel_gradient_field';
  kinds = {'position', 'displacement', 'jacobian', 'determinant', 'inverse'};
  if ~ischar(what) || ~any(strcmp(what, kinds))
    reject(who, 'WHAT', ['one of ' strjoin(kinds, ', ')], what);
  end
  check_columns(who, 'POINTS', points, 3);
  check_columns(who, 'TERMS', terms, 5);
  whole = terms(:, 1:4);
  if any(whole(:) ~= round(whole(:))) || any(~ismember(terms(:, 2), [0 1])) || any(~ismember(terms(:, 1), 1:3))
    reject(who, 'TERMS', 'rows of axis (1 to 3), kind (0 or 1), order, degree and value', terms);
  end
  check_positive(who, 'R0', r0);
  [out, lost] = __ctessel__('gradient_field', find(strcmp(what, kinds)), double(points.'), double(terms.'), r0);
  n = rows(points);
  switch what
    case 'jacobian', out = permute(reshape(out, [3 3 n]), [3 2 1]);
    case 'determinant', out = reshape(out, [n 1]);
    otherwise, out = reshape(out, [3 n]).';
  end
end

function check_columns(who, name, x, count)
  check_real(who, name, x);
  if ndims(x) > 2 || columns(x) ~= count
    reject_shape(who, name, sprintf('real, with %d columns', count), x);
  end
end

%!shared terms, points, linear
%! linear = [1 0 1 1 2; 2 1 1 1 1; 3 0 1 0 1];
%! terms = [linear; 1 0 3 1 -0.06; 2 0 2 2 0.02; 3 0 3 0 0.03; 3 1 2 1 0.01];
%! points = [0 0 0; 0 0 100; 80 -60 40; -30 110 -90; 0 -120 0];
%!test % against the polynomials, and differences of them
%! x = points(:, 1); y = points(:, 2); z = points(:, 3); r2 = x .^ 2 + y .^ 2 + z .^ 2;
%! want = [x - 0.03 * 1.5 * x .* (5 * z .^ 2 - r2) / 250 ^ 2, ...
%!         y + 0.02 * 3 * (x .^ 2 - y .^ 2) / 250, ...
%!         z + 0.03 * (5 * z .^ 3 - 3 * z .* r2) / 2 / 250 ^ 2 + 0.01 * 3 * y .* z / 250];
%! position = ctessel_gradient_field('position', points, terms, 250);
%! assert(position, want, 1e-11)
%! assert(ctessel_gradient_field('displacement', points, terms, 250), want - points, 1e-11)
%! jacobian = ctessel_gradient_field('jacobian', points, terms, 250);
%! for b = 1:3
%!   step = 1e-3 * ((1:3) == b);
%!   ahead = ctessel_gradient_field('position', points + step, terms, 250);
%!   behind = ctessel_gradient_field('position', points - step, terms, 250);
%!   assert(jacobian(:, :, b), (ahead - behind) / 2e-3, 1e-8)
%! end
%! volume = ctessel_gradient_field('determinant', single(points), terms, 250);
%! for k = 1:rows(points), assert(volume(k), det(reshape(jacobian(k, :, :), 3, 3)), 1e-12), end
%! [back, lost] = ctessel_gradient_field('inverse', position, terms, 250);
%! assert(back, points, 1e-5)
%! assert(lost, 0)
%!test % x - x^3 / 2 / 250^2 has no value beyond 136
%! [back, lost] = ctessel_gradient_field('inverse', [100 0 0; 200 0 0], [linear; 1 0 3 1 2/3], 250);
%! assert(isnan(back), [false(1, 3); true(1, 3)])
%! assert(lost, 1)
%!assert(size(ctessel_gradient_field('jacobian', zeros(0, 3), linear, 1)), [0 3 3])
%!error <ctessel_gradient_field: WHAT must be one of position, displacement, .* got "speed">
%! ctessel_gradient_field('speed', points, terms, 250)
%!error <POINTS must be real, with 3 columns; got 3x5> ctessel_gradient_field('position', points', terms, 250)
%!error <TERMS must be rows of axis> ctessel_gradient_field('position', points, [4 0 1 1 1], 250)
%!error <R0 must be a positive number; got 0> ctessel_gradient_field('position', points, terms, 0)
%!error <ctessel_gradient_field: the z gradient has no linear term>
%! ctessel_gradient_field('position', points, linear(1:2, :), 250)

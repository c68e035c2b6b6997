% Associated Legendre function of one order and degree, not normalised.
%
%   p = ctessel_legendre(n, m, x)
%
%   n, m   order and degree, whole numbers with 0 <= m <= n
%   x      cos(theta): real, single or double (taken as single), each from -1 to 1
%   p      double, the shape of X: P_n^m(x) with the Condon-Shortley phase, P_1^1 = -sqrt(1 - x^2)
%
% Example:
%
%   ctessel_legendre(2, 0, [-1 0 1])              % (3 x^2 - 1) / 2: 1 -0.5 1
%
% See also: legendre, ctessel_geometry
function p = ctessel_legendre(n, m, x)
  if nargin ~= 3, print_usage(); end
  who = 'ctessel_legendre';
  n = check_whole(who, 'N', n, 1, 0, double(intmax) - 2);
  m = check_whole(who, 'M', m, 1, 0, n);
  check_real(who, 'X', x);
  if ~all(abs(single(x(:))) <= 1), reject(who, 'X', 'from -1 to 1', x); end
  p = __ctessel__('legendre', n, m, x);
end

%!test
%! x = double(single([-1 -.9 -.3 0 .45 .7 1]));
%! for n = 0:6
%!   want = legendre(n, x);
%!   for m = 0:n
%!     assert(ctessel_legendre(n, m, x), want(m + 1, :), 1e-6 * max(1, max(abs(want(m + 1, :)))))
%!   end
%! end
%!error <ctessel_legendre: M must be a whole number from 0 to 2; got 3> ctessel_legendre(2, 3, 0)
%!error <N must be a whole number from 0 to 2147483645; got 2.147484e.09> ctessel_legendre(2147483646, 0, 0)
%!error <X must be from -1 to 1; got 1.5> ctessel_legendre(2, 0, 1.5)
%!error <X must be from -1 to 1; got \[0 NaN\]> ctessel_legendre(2, 0, [0 NaN])

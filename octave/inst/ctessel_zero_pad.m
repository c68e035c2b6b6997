% Places k-space or an image in the centre of a larger array of zeros.
%
%   y = ctessel_zero_pad(x, target)
%
%   x        single or double, real or complex, any number of dimensions
%   target   extents of the first two or three dimensions of the result, whole numbers, none
%            smaller than those of X. Dimensions without a target keep their extents.
%   y        single; line 0, sample floor(N/2) + 1, of an even extent becomes line 0 of an even target. If
%            the number of zeros is odd, one more goes in front: padding a b to 5 gives 0 0 a b 0.
%
% Example: images on a grid that is twice as fine.
%
%   ctessel_zero_pad([1 2; 3 4], [4 5])
%   kspace = single(complex(rand(8, 6, 1, 4), 1));
%   fine = ctessel_zero_pad(kspace, 2 * [8 6]);   % 16 x 12 x 1 x 4
%
% See also: ctessel_ringing_filter
function y = ctessel_zero_pad(x, target)
  if nargin ~= 2, print_usage(); end
  who = 'ctessel_zero_pad';
  check_array(who, 'X', x);
  given = target;
  target = check_whole(who, 'TARGET', target, [2 3], 0, double(intmax));
  if numel(target) == 2, target(3) = size(x, 3); end
  extents = [size(x, 1), size(x, 2), size(x, 3)];
  if any(target < extents)
    reject(who, 'TARGET', ['at least ' mat2str(extents) ', the extents of X'], given);
  end
  y = __ctessel__('zero_pad', x, target);
end

%!assert(ctessel_zero_pad([1 2], [1 5]), single([0 0 1 2 0]))
%!assert(ctessel_zero_pad([1 2], [1 6]), single([0 0 1 2 0 0]))
%!test
%! x = single(complex(rand(3, 4, 2, 2, 3), rand(3, 4, 2, 2, 3)));
%! y = ctessel_zero_pad(x, [6 9 5]);
%! want = zeros(6, 9, 5, 2, 3, 'single');
%! want(3:5, 4:7, 3:4, :, :) = x;
%! assert(y, want)
%! assert(ctessel_zero_pad(real(x), [6 9 5]), real(want))
%! assert(ctessel_zero_pad(x, [3 4 2]), x)
%! assert(size(ctessel_zero_pad(x, [3 9])), [3 9 2 2 3])
%!assert(ctessel_zero_pad(zeros(0, 2), [2 3]), zeros(2, 3, 'single'))
%!error <TARGET must be at least \[2 2 1\], the extents of X; got \[1 4\]> ctessel_zero_pad(ones(2), [1 4])
%!error <TARGET must be 2 or 3 whole numbers from 0 to 2147483647; got \[4 4.5\]>
%! ctessel_zero_pad(ones(2), [4 4.5])
%!error <TARGET must be 2 or 3 whole .* got 4> ctessel_zero_pad(ones(2), 4)
%!error <X must be a full numeric or logical array; got "text"> ctessel_zero_pad('text', [4 4])

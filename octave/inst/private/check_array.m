% check_array(who, name, x)   full numbers or logical values, extents within 32 bits; the kernels take
%                           them as single
function check_array(who, name, x)
  if ~(isnumeric(x) || islogical(x)) || issparse(x)
    reject(who, name, 'a full numeric or logical array', x);
  end
  if any(size(x) > 2147483647)
    reject(who, name, 'an array with extents up to 2147483647', x);
  end
end

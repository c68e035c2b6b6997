% check_array(who, name, x)   full single or double values, extents within 32 bits
function check_array(who, name, x)
  if ~isfloat(x) || issparse(x)
    reject(who, name, 'a full single or double array', x);
  end
  if any(size(x) > 2147483647)
    reject(who, name, 'an array with extents up to 2147483647', x);
  end
end

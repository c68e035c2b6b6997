% check_positive(who, name, x)   one positive, finite number
function check_positive(who, name, x)
  if ~isfloat(x) || ~isreal(x) || ~isscalar(x) || ~(x > 0) || isinf(x)
    reject(who, name, 'a positive number', x);
  end
end

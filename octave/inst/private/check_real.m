% check_real(who, name, x)   full real single or double values
function check_real(who, name, x)
  if ~isreal(x), reject(who, name, 'real', x); end
  check_array(who, name, x);
end

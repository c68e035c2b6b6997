% reject_shape(who, name, expected, got)   the error of an argument whose extents do not fit
function reject_shape(who, name, expected, got)
  error('ctessel:argument', '%s: %s must be %s; got %s', who, name, expected, size_text(got));
end

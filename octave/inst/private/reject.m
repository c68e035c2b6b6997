% reject(who, name, expected, got)   the error of every wrong argument
function reject(who, name, expected, got)
  error('ctessel:argument', '%s: %s must be %s; got %s', who, name, expected, described(got));
end

function text = described(v)
  small = numel(v) <= 4 && ismatrix(v) && ndims(v) == 2 && ~issparse(v);
  if ischar(v) && size(v, 1) == 1 && numel(v) <= 40
    text = ['"' v '"'];
  elseif small && ~isempty(v) && (isnumeric(v) || islogical(v))
    text = mat2str(v, 7);
    if ~isa(v, 'double') && ~islogical(v), text = [text ' of class ' class(v)]; end
  else
    kind = class(v);
    if isnumeric(v) && iscomplex(v), kind = ['complex ' kind]; end
    if issparse(v), kind = ['sparse ' kind]; end
    text = sprintf('%s %s array', size_text(v), kind);
  end
end

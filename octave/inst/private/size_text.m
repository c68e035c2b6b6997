% text = size_text(v)   extents of an array, 4x3x2
function text = size_text(v)
  text = strjoin(arrayfun(@num2str, size(v), 'UniformOutput', false), 'x');
end

% kspace = read_kspace(file)   single, kx x ky x kz x coils, centred
%
% FILE is a MATLAB file with a complex variable "kspace", or NAME.cfl (or NAME.hdr, or NAME) of a
% BART pair with extents (x, y, z, coil, then ones). What does not fit gives a one-line error.
function kspace = read_kspace(file)
  if regexp(file, '\.mat$')
    kspace = read_mat(file);
  else
    kspace = read_cfl(regexprep(file, '\.(cfl|hdr)$', ''));
  end
  extents = size(kspace);
  extents(end + 1:4) = 1;
  if ndims(kspace) > 4
    refuse(file, sprintf('has extents %s; wanted are kx, ky, kz, coils', mat2str(extents)));
  elseif any(extents(1:2) < 32)
    refuse(file, sprintf('has extents %s; kx and ky need at least 32 samples', mat2str(extents)));
  elseif ~all(isfinite(kspace(:))) || ~any(kspace(:))
    refuse(file, 'holds values that are not finite, or only zeros');
  end
  energy = sum(sum(abs(kspace) .^ 2, 3), 4);
  [~, at] = max(energy(:));
  [x, y] = ind2sub(extents(1:2), at);
  if any(abs([x y] - 1 - floor(extents(1:2) / 2)) > extents(1:2) / 8)
    refuse(file, sprintf('has its largest sample at (%d, %d) of %d x %d; %s', x, y, extents(1:2), ...
                         'expected k-space with line 0 in the centre'));
  end
end

function kspace = read_mat(file)
  if ~exist(file, 'file')
    refuse(file, 'does not exist');
  end
  try
    content = load(file);
  catch
    refuse(file, 'is not a MATLAB file');
  end
  if ~isfield(content, 'kspace') || ~isnumeric(content.kspace) || ~iscomplex(content.kspace)
    refuse(file, 'has no complex variable named kspace (kx x ky x kz x coils)');
  end
  kspace = single(content.kspace);
end

function kspace = read_cfl(name)
  header = fopen([name '.hdr'], 'r');
  data = fopen([name '.cfl'], 'r', 'ieee-le');
  if header < 0 || data < 0
    refuse(name, 'does not exist as .mat file or as .cfl and .hdr pair');
  end
  fgetl(header);
  line = fgetl(header);
  extents = [];
  if ischar(line), extents = str2double(strsplit(strtrim(line))); end
  values = fread(data, Inf, 'single=>single');
  fclose(header);
  fclose(data);
  if numel(extents) < 2 || ~all(extents >= 1 & extents == fix(extents))
    refuse([name '.hdr'], 'needs the extents in its second line, whole numbers from 1 on');
  elseif numel(values) ~= 2 * prod(extents)
    refuse([name '.cfl'], sprintf('holds %d floats; its header %s asks for %d', numel(values), ...
                                  mat2str(extents), 2 * prod(extents)));
  end
  kspace = reshape(complex(values(1:2:end), values(2:2:end)), extents);
end

function refuse(file, why)
  error('ctessel:input', '%s %s.', file, why);
end

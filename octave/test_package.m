% test_package(tarball, folder)
%
% Installs the package into FOLDER, or takes what is there if TARBALL is empty; runs its tests, the
% examples of every help text and, where it is there, a whole reconstruction of measured data. Ends with
% an error if anything is wrong.
function test_package(tarball, folder)
  % Neither the user's packages nor the system's are seen or touched.
  pkg('prefix', folder, folder);
  pkg('local_list', fullfile(folder, 'local_list'));
  pkg('global_list', fullfile(folder, 'global_list'));
  if ~isempty(tarball)
    tic
    pkg('install', tarball);
    printf('installed in %.0f s\n', toc);
  end
  pkg('load', 'ctessel');

  functions = {};
  for category = pkg('describe', 'ctessel'){1}.provides
    functions = [functions category{1}.functions];
  end
  run_tests(folder, numel(functions));
  for name = functions, run_example(name{1}); end
  printf('examples of %d help texts ran\n', numel(functions));
  run_tour(folder);
  run_measured();
end

function run_tests(folder, functions)
  before = cd(folder);  % for the log
  text = evalc('pkg test ctessel');
  cd(before);
  passed = count_of(text, 'PASS');
  failed = count_of(text, 'FAIL');
  printf('pkg test: %d passed, %d failed\n', passed, failed);
  if failed > 0 || passed < 5 * functions
    disp(text);
    disp(fileread(fullfile(folder, 'fntests.log')));
    error('pkg test failed, or tests are missing');
  end
end

function n = count_of(text, outcome)
  token = regexp(text, ['Summary:\s+.*' outcome ' +(\d+)'], 'tokens', 'once');
  if isempty(token), error('pkg test reports no %s:\n%s', outcome, text); end
  n = str2double(token{1});
end

% The indented lines below "Example" of a help text, without what is plotted.
function run_example(name)
  if strcmp(name, 'homodyne'), kspace = rand(128); end  % its example starts from the user's data
  text = get_help_text(name);
  lines = strsplit(text, "\n", "CollapseDelimiters", false);
  first = find(strncmp(strtrim(lines), 'Example', 7), 1);
  if isempty(first), error('the help of %s has no example', name); end
  code = '';
  for line = lines(first + 2:end)
    if ~isempty(strtrim(line{1})) && ~strncmp(line{1}, '   ', 3), break, end
    if isempty(regexp(line{1}, '^ *(plot|imagesc)', 'once')), code = [code line{1} "\n"]; end
  end
  if isempty(strtrim(code)), error('the example of %s is empty', name); end
  try
    evalc(code);
  catch problem
    error('the example of %s fails: %s\n%s', name, problem.message, code);
  end
end

function run_tour(folder)
  said = evalc('tour(folder)');
  for name = {'homodyne', 'sense', 'sense_noise', 'geometry'}
    assert(any(strfind(said, [name{1} '.png: '])))
    picture = double(imread(fullfile(folder, [name{1} '.png'])));
    assert(mean(picture(:)) > .02 * max(picture(:)))  % neither black nor a few hot pixels
  end
end

% Brain of sixteen coils, both halves of the package: homodyne of 84 of 128 lines on either side, and
% SENSE of every second line with measured sensitivities and noise.
function run_measured()
  folder = getenv('CTESSEL_DATA');
  if ~exist(fullfile(folder, 'brain16_ksp.cfl'), 'file')
    printf('SKIPPED: no measured data in "%s"\n', folder);
    return
  end
  kspace = read_pairs(fullfile(folder, 'brain16_ksp.cfl'));
  maps = read_pairs(fullfile(folder, 'brain16_sens.cfl'));
  full = to_image(kspace);
  sos = ctessel_sos(full);
  distance = @(image) norm(image(:) - sos(:)) / norm(sos(:));

  image = ctessel_sos(homodyne_recon(kspace, [], [-20 63]));
  [~, by_hand] = homodyne_images(kspace, {[], [-20 63], []});
  turned = distance(ctessel_sos(homodyne_recon(kspace, [], [-63 20])));
  printf('brain: homodyne %.3f off, %.3f with the other side missing\n', distance(image), turned);
  assert(image, by_hand, 1e-5 * max(by_hand(:)))
  assert(turned < 1.1 * distance(image))

  folded = 2 * to_image(kspace .* (mod(0:127, 2) == 0));
  image = ctessel_sense(folded(:, 33:96, :, :), maps);
  combined = sum(conj(maps) .* full, 4) ./ max(sum(abs(maps) .^ 2, 4), eps);
  inside = abs(maps(:, :, 1, 1)) > 0;
  sense = norm(abs(image(inside)) - abs(combined(inside))) / norm(combined(inside));
  printf('brain: SENSE of every second line %.3f off\n', sense);
  assert(sense < 0.1)
end

function x = read_pairs(file)
  f = fopen(file, 'r', 'ieee-le');
  v = fread(f, Inf, 'single=>single');
  fclose(f);
  x = reshape(complex(v(1:2:end), v(2:2:end)), 128, 128, 1, 16);
end

% Entry of demo.sh: run_demo with the arguments of the command line, errors in one line.
status = 0;
try
  arguments = argv();
  run_demo(arguments{:});
catch problem
  fprintf(stderr, 'demo: %s\n', problem.message);
  status = 1;
end
exit(status);

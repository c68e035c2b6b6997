"""``python -m ctessel``: see `ctessel.cli`."""

import sys

from .cli import main

sys.exit(main())

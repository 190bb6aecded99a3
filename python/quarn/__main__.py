"""python -m quarn: the command `quarn`."""

import sys

from .command import main

sys.exit(main())

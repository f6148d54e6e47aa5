"""What the package takes for a path, a name or an address."""

import os

Text = str | bytes | os.PathLike[str] | os.PathLike[bytes]

"""migrate_preferences.py <LINES - stores preferences that another system exported.

Each line is a JSON object with "address" and preferences by their keys. A user's other preferences stay as
they are. A value that could not be read back as it is is reported and left out; the other values of the line
are stored. The exit code is 1 if a value was left out.
"""

import json
import sys
from typing import Any

from tsmail import Mailbox, Preferences


def migrate(address: str, values: dict[str, Any]) -> list[str]:
    """Stores the values. Returns the refused ones with the reasons."""
    user = Mailbox(address).bare_address
    preferences, refused = Preferences.of(user, missing_ok=True), []
    for key, value in values.items():
        try:
            preferences[key] = value
        except KeyError:
            refused.append(f"{address}: there is no preference {key!r}")
        except (TypeError, ValueError) as error:
            refused.append(f"{address}: {error}")
    preferences.store(user)
    return refused


def main() -> int:
    refused = []
    for line in sys.stdin:
        values = json.loads(line)
        refused += migrate(values.pop("address"), values)
    print(*refused, sep="\n", end="\n" if refused else "", file=sys.stderr)
    return 1 if refused else 0


if __name__ == "__main__":
    sys.exit(main())

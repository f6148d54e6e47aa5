"""migrate_preferences.py <LINES - stores preferences that another system exported.

Each line is a JSON object with "address" and preferences by their keys. What a user has already and the
line does not name is kept. A value that would not come back as it is is reported and left out; the others
of its line are stored. Exit code 1 if there was one.
"""

import json
import sys
from typing import Any

from tsmail import Mailbox, Preferences


def migrate(address: str, values: dict[str, Any]) -> list[str]:
    """Stores the values; what was refused, and why."""
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

#!/usr/bin/env python3
"""Lists the doors of a panel, unlocks one, adds a user with a card, and follows the event log:

NIMBRA_PASSWORD=... front_desk.py HOST USER DOOR FIRST-NAME LAST-NAME CARD-NUMBER
"""

import itertools
import os
import sys

import nimbra

UNLOCK_FOR_A_MOMENT = 2
REMOTE_LOGIN = "15107"
OWN_CHANGES = 3


def add_user(panel, first_name, last_name, card_number):
    """Adds a user with a card of the default format. Returns the number of the user."""
    panel.ask("AddUserInfo", FirstName=first_name, LastName=last_name)
    # The response has no number: the user is the newest of this name.
    user_no = max(int(user["UserNo"])
                  for user in panel.rows("GetUserInfoEx", FirstName=first_name, LastName=last_name))
    format_no = next(row["FormatNo"] for row in panel.rows("GetCardFormatEx") if row["Default"] == "1")
    panel.ask("AddCardInfo", UserNo=user_no, FormatNo=format_no, CardNumber=card_number, NeverExpire=1)
    return user_no


def run(host, user, door, first_name, last_name, card_number):
    panel = nimbra.Panel(host, user, os.environ["NIMBRA_PASSWORD"])
    for row in panel.rows("GetDoorInfoEx"):
        state = "locked" if row["Status"] == "0" else "unlocked"
        print(f"Door {row['DoorNo']}: {row['Name']}, {state}")
    last = panel.newest_event()

    panel.ask("SetDoorLock", Port=door, Control=UNLOCK_FOR_A_MOMENT)
    print(f"Door {door} is unlocked for a moment.")

    user_no = add_user(panel, first_name, last_name, card_number)
    print(f"User {user_no}: {first_name} {last_name}, card {card_number}")

    events = (event for event in panel.follow(last) if event["EventCode"] != REMOTE_LOGIN)
    for event in itertools.islice(events, OWN_CHANGES):
        print(f"{event['EventTime']} {event['EventDesc']} ({event['UserName']})", flush=True)
    panel.close()


def main():
    if len(sys.argv) != 7 or not sys.argv[3].isdigit() or "NIMBRA_PASSWORD" not in os.environ:
        print("Usage:", __doc__.splitlines()[-1], file=sys.stderr)
        return 2
    try:
        run(*sys.argv[1:])
    except (nimbra.PanelError, ValueError) as error:
        print(error, file=sys.stderr)
        return 1
    except OSError as error:
        print(error, file=sys.stderr)
        return 3
    return 0


if __name__ == "__main__":
    sys.exit(main())

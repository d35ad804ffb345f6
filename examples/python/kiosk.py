"""A Python host: a kiosk that reports one purchase and shows in-app offers in its terminal.

The bundle folder ($TARN_MAIN_BUNDLE, else the interpreter's folder) holds TarnService-Info.plist;
TARN_LIBRARY names libtarn.so.1 when it is not on the library path."""
import time

import tarn


def show(inapp: tarn.InApp) -> None:
    """The in-app presenter: prints the popup, reports it opened and picks its first button."""
    for row in inapp.description["rows"]:
        print(f"  [{row['kind']}] {row.get('text') or row.get('urls', '')}")
    inapp.report_opened()
    buttons = [row for row in inapp.description["rows"] if row["kind"] == "button"]
    if buttons:
        inapp.report_button_clicked(buttons[0]["index"])
    inapp.release()


def main() -> int:
    tarn.set_log_level(tarn.LOG_WARNING)
    tarn.set_inapp_presenter(show)
    tarn.initialize("Kiosk", main_queue="pumped")  # this thread runs the library's main queue
    try:
        tarn.send_custom_event("purchase", {"sku": "A-42", "total": 19.9},
                               on_action=lambda action: print("action:", action))
    except tarn.TarnError as error:
        print("refused:", error)
        return 1
    end = time.monotonic() + 5
    while time.monotonic() < end:
        tarn.run_pending(100)
    return 0 if tarn.initialize_status() == "initialized" else 1


if __name__ == "__main__":
    raise SystemExit(main())

"""The Python package against `tarn serve` (TARN_CLI names the command, TARN_LIBRARY libtarn).

One library per process: the module initialises it once, on a pumped main queue that the tests
run with tarn.run_pending, and each test checks what the server received."""

import json
import os
import subprocess
import sys
import tempfile
import threading
import time

import pytest

import tarn

ANSWER = {
    "inAppCommunicationCommands": [{
        "uuid": "py-popup-1", "code": "PY-POP", "name": "Python popup",
        "expireDate": 4102444800000, "template": "POPUP", "triggeringEventName": "show_offer",
        "title": {"text": "Hello Python", "color": "#102030"},
        "body": {"text": "Body", "color": "#405060"}, "maxShowCount": 5, "bgColor": "#FFFFFF",
        "subInAppCommunication": {"template": "POPUP", "buttons": [
            {"_id": "py-b1", "text": "Open", "action": {"link": "kiosk://offer", "type": "deep"}},
        ]},
    }],
    "configuration": {"eventQueueDelay": 0.05},
}


class Server:
    def __init__(self, folder):
        self.events_file = os.path.join(folder, "events.jsonl")
        answer = os.path.join(folder, "answer.json")
        with open(answer, "w") as out:
            json.dump(ANSWER, out)
        self.log = open(os.path.join(folder, "serve.log"), "w+")
        self.process = subprocess.Popen(
            [os.environ["TARN_CLI"], "serve", "--port", "0", "--client-id", "py-host",
             "--client-secret", "py-host-secret", "--events-file", self.events_file,
             "--inapp", answer], stdout=self.log, stderr=subprocess.STDOUT)
        self.url = None
        for _ in range(200):
            self.log.seek(0)
            text = self.log.read()
            if "listening on " in text:
                self.url = text.split("listening on ", 1)[1].split()[0].rstrip(",;")
                break
            time.sleep(0.05)
        assert self.url, "tarn serve did not start"

    def events(self):
        try:
            with open(self.events_file) as lines:
                return [json.loads(line) for line in lines if line.strip()]
        except FileNotFoundError:
            return []

    def wait_event(self, name, seconds=10.0):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            found = [event for event in self.events() if event["name"] == name]
            if found:
                return found[-1]
            tarn.run_pending(50)
        return None

    def stop(self):
        self.process.terminate()
        self.process.wait(10)
        self.log.close()


@pytest.fixture(scope="module")
def server():
    with tempfile.TemporaryDirectory() as folder:
        served = Server(folder)
        bundle = os.path.join(folder, "bundle")
        os.mkdir(bundle)
        with open(os.path.join(bundle, "TarnService-Info.plist"), "w") as plist:
            plist.write(
                '<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>'
                f"<key>DOMAIN</key><string>{served.url}</string>"
                "<key>CLIENT_ID</key><string>py-host</string>"
                "<key>CLIENT_SECRET</key><string>py-host-secret</string></dict></plist>")
        lines = []
        tarn.set_log_handler(lambda level, line: lines.append((level, line)))
        try:
            tarn.initialize("PyHost", actor_id="py-actor", bundle_dir=bundle,
                            data_dir=os.path.join(folder, "data"), main_queue="pumped")
            end = time.monotonic() + 20
            while tarn.initialize_status() != "initialized" and time.monotonic() < end:
                tarn.run_pending(100)
            assert tarn.initialize_status() == "initialized"
            assert any("Tarn Sdk initialized succesfully." in line for _, line in lines)
            yield served
        finally:
            tarn.set_log_handler(None)
            served.stop()


def test_events_arrive_with_their_parameters(server):
    tarn.send_custom_event("add_to_cart", {"sku": "A-42", "qty": 2, "tags": ["x"], "é": "ü"},
                           page_name="Cart")
    event = server.wait_event("add_to_cart")
    assert event is not None
    assert event["actorId"] == "py-actor"
    parameters = event["parameters"]
    assert parameters["sku"] == "A-42" and parameters["qty"] == 2 and parameters["tags"] == ["x"]
    assert parameters["é"] == "ü" and parameters["pageName"] == "Cart"
    assert parameters["applicationName"] == "PyHost"

    try:
        raise KeyError("no such shelf")
    except KeyError as error:
        tarn.send_application_error_event(error)
    error_event = server.wait_event("application_error")
    assert error_event["parameters"]["errorType"] == "KeyError"
    tarn.send_push_notification_received_event({"data": json.dumps({"code": "P-1"})})
    assert server.wait_event("push_notification_received") is not None


def test_login_changes_the_actor(server):
    tarn.send_login_event("py-member-7", {"method": "card"}, page_name="Login")
    login = server.wait_event("login")
    assert login["actorId"] == "py-member-7" and login["parameters"]["method"] == "card"
    assert tarn.actor_id() == "py-member-7"
    change = server.wait_event("actor_change")
    assert change["parameters"]["newActorId"] == "py-member-7"
    tarn.set_apns_token(b"\x0a\xff")
    assert tarn.apns_token() == "0aff"
    tarn.set_push_token("py-push-1")
    assert tarn.push_token() == "py-push-1"


def test_inapp_action_reaches_the_callback(server):
    shown = []
    actions = []
    pumping = threading.get_ident()
    tarn.set_inapp_presenter(lambda inapp: shown.append((inapp, threading.get_ident())))
    tarn.send_custom_event("show_offer", {}, screen="OfferScreen",
                           on_action=lambda action: actions.append((action, threading.get_ident())))
    end = time.monotonic() + 10
    while not shown and time.monotonic() < end:
        tarn.run_pending(50)
    assert shown, "the popup was not presented"
    inapp, thread = shown[0]
    assert thread == pumping
    rows = inapp.description["rows"]
    assert rows[0] == {"kind": "title", "text": "Hello Python", "color": "#102030"}
    assert rows[-1]["kind"] == "button" and rows[-1]["index"] == 0
    inapp.report_opened()
    inapp.report_button_clicked(0)
    assert actions == [({"link": "kiosk://offer", "type": "deep"}, pumping)]
    with pytest.raises(tarn.InvalidArgumentError):
        inapp.report_button_clicked(3)
    inapp.release()
    with pytest.raises(tarn.StateError):
        inapp.report_dismissed()
    clicked = server.wait_event("in_app_button_clicked")
    assert clicked["parameters"]["buttonId"] == "py-b1"
    assert clicked["parameters"]["communicationCode"] == "PY-POP"
    tarn.set_inapp_presenter(None)


def test_bad_input_raises_and_stores_nothing(server):
    with pytest.raises(tarn.NotObjectError) as refused:
        tarn.send_custom_event("bad_event", [1, 2])
    assert "parameters_json" in str(refused.value)
    with pytest.raises(tarn.InvalidJsonError):
        tarn.send_custom_event("bad_event", "{not json")
    with pytest.raises(tarn.NotObjectError):
        tarn.send_custom_event("bad_event", "42")
    with pytest.raises(tarn.InvalidArgumentError):
        tarn.send_custom_event("", {})
    with pytest.raises(tarn.NotObjectError):
        tarn.send_login_event("bad-actor", ["x"])
    with pytest.raises(tarn.NotObjectError):
        tarn.send_push_notification_clicked_event([])
    with pytest.raises(tarn.NullArgumentError):
        tarn.send_push_notification_denied_event(None)
    with pytest.raises(tarn.InvalidArgumentError):
        tarn.set_log_level(9)
    with pytest.raises(ValueError):
        tarn.initialize("X", main_queue="loop")
    with pytest.raises(tarn.StateError):
        tarn.initialize("X", main_queue="thread", force_initialize=True)
    tarn.send_custom_event("after_bad_input")
    assert server.wait_event("after_bad_input") is not None
    names = [event["name"] for event in server.events()]
    assert "bad_event" not in names
    assert tarn.actor_id() != "bad-actor"


def test_example_script_sends_its_event(server):
    """examples/python/kiosk.py, run as a host of its own against the same server."""
    script = os.environ["TARN_PY_EXAMPLE"]
    bundle = os.path.dirname(server.events_file) + "/bundle"
    with tempfile.TemporaryDirectory() as data:
        env = dict(os.environ, TARN_MAIN_BUNDLE=bundle, TARN_DATA_DIR=data,
                   PYTHONPATH=os.path.dirname(os.path.dirname(tarn.__file__)))
        done = subprocess.run([sys.executable, script], env=env,
                              capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stdout + done.stderr
    purchases = [event for event in server.events() if event["name"] == "purchase"]
    assert purchases and purchases[0]["parameters"]["sku"] == "A-42"
    assert purchases[0]["parameters"]["applicationName"] == "Kiosk"


def test_denial_stops_sending_and_a_grant_resumes(server):
    """Last, since a denial stops tracking for the rest of the process."""
    assert tarn.consent_state() == "notAsked"
    tarn.deny_consent()
    assert tarn.consent_state() == "denied"
    tarn.send_custom_event("after_denial")
    for _ in range(10):
        tarn.run_pending(50)
    tarn.grant_consent()
    assert tarn.consent_state() == "granted"
    tarn.send_custom_event("after_grant")
    assert server.wait_event("after_grant", 20) is not None
    assert "after_denial" not in [event["name"] for event in server.events()]
    tarn.erase_local_data(keep_consent=True)
    assert tarn.consent_state() == "granted"


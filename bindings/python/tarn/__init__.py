"""TarniOSCommonKit from Python: a thin layer over the C interface (``tarn/tarn.h``) in libtarn.

Every function does what the C call of the same name does and sends the same events. A call the
library refuses raises :class:`TarnError` (or one of its subclasses) with the library's message.

Threads: the log handler runs on the thread that logs; the in-app presenter on the library's main
queue (its own thread, or the thread calling :func:`run_pending` when initialised with
``main_queue="pumped"``); an action callback on the thread that reports the button tap.
"""

from __future__ import annotations

import atexit
import ctypes
import ctypes.util
import json
import os
import threading
from typing import Any, Callable, Dict, Mapping, Optional

__all__ = [
    "TarnError", "NullArgumentError", "BadSizeError", "InvalidJsonError", "NotObjectError",
    "InvalidArgumentError", "StateError", "NotFoundError", "InApp",
    "initialize", "initialize_status", "actor_id", "app_group_actor_id",
    "set_push_token", "push_token", "set_apns_token", "apns_token",
    "send_custom_event", "send_login_event", "send_logout_event",
    "send_page_in_event", "send_page_out_event",
    "send_app_background_event", "send_app_foreground_event", "send_application_error_event",
    "send_push_notification_clicked_event", "send_push_notification_dismissed_event",
    "send_push_notification_received_event", "send_push_notification_denied_event",
    "set_inapp_presenter", "set_log_handler", "set_log_level", "run_pending",
]


# ---- Errors ----

class TarnError(Exception):
    """A call the library refused; ``code`` is its TARN_ERR_ status, the text its message."""

    def __init__(self, code: int, message: str) -> None:
        super().__init__(message)
        self.code = code


class NullArgumentError(TarnError, ValueError):
    """A required value was None."""


class BadSizeError(TarnError):
    """A struct of the wrong size (a mismatch between this package and the library)."""


class InvalidJsonError(TarnError, ValueError):
    """Text that had to be JSON is not."""


class NotObjectError(TarnError, TypeError):
    """Parameters or a notification that are not a JSON object (a dict)."""


class InvalidArgumentError(TarnError, ValueError):
    """An argument out of its range."""


class StateError(TarnError):
    """A call that does not fit the library's state."""


class NotFoundError(TarnError, LookupError):
    """Nothing to return."""


_ERRORS = {1: NullArgumentError, 2: BadSizeError, 3: InvalidJsonError, 4: NotObjectError,
           5: InvalidArgumentError, 7: StateError, 8: NotFoundError}
_BUFFER_TOO_SMALL = 6


# ---- The library ----

def _load() -> ctypes.CDLL:
    path = os.environ.get("TARN_LIBRARY") or ctypes.util.find_library("tarn") or "libtarn.so.1"
    return ctypes.CDLL(path)


_lib = _load()
_c = ctypes.c_char_p
_LOG = ctypes.CFUNCTYPE(None, ctypes.c_int, ctypes.c_char_p, ctypes.c_size_t, ctypes.c_void_p)
_ACTION = ctypes.CFUNCTYPE(None, ctypes.c_char_p, ctypes.c_void_p)
_PRESENT = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_char_p, ctypes.c_void_p)


class _Options(ctypes.Structure):
    _fields_ = [("size", ctypes.c_size_t), ("application_name", _c), ("actor_id", _c),
                ("domain_url", _c), ("authorization", _c), ("client_id", _c),
                ("client_secret", _c), ("application_lifecycle_auto", ctypes.c_int),
                ("send_activity_lifecycle_events", ctypes.c_int),
                ("force_initialize", ctypes.c_int), ("app_group", _c), ("bundle_dir", _c),
                ("data_dir", _c), ("main_queue", ctypes.c_int)]


def _declare(name: str, *args: Any, result: Any = ctypes.c_int) -> Any:
    function = getattr(_lib, name)
    function.argtypes = list(args)
    function.restype = result
    return function


_lib_last_error = _declare("tarn_last_error", result=_c)
_declare("tarn_initialize", ctypes.POINTER(_Options))
_declare("tarn_initialize_status", ctypes.POINTER(ctypes.c_int))
for _getter in ("tarn_get_actor_id", "tarn_get_push_token", "tarn_get_apns_token"):
    _declare(_getter, ctypes.c_char_p, ctypes.c_size_t, ctypes.POINTER(ctypes.c_size_t))
_declare("tarn_get_app_group_actor_id", _c, ctypes.c_char_p, ctypes.c_size_t,
         ctypes.POINTER(ctypes.c_size_t))
_declare("tarn_set_push_token", _c)
_declare("tarn_set_apns_token", ctypes.c_char_p, ctypes.c_size_t)
_declare("tarn_send_custom_event", _c, _c, _c, _c, _ACTION, ctypes.c_void_p)
_declare("tarn_send_login_event", _c, _c, _c, _c)
_declare("tarn_send_logout_event")
for _name in ("page_in", "page_out", "app_background", "app_foreground"):
    _declare(f"tarn_send_{_name}_event", _c, _c)
_declare("tarn_send_application_error_event", _c, _c)
for _name in ("clicked", "dismissed", "received", "denied"):
    _declare(f"tarn_send_push_notification_{_name}_event", _c)
_declare("tarn_set_inapp_presenter", _PRESENT, ctypes.c_void_p)
for _name in ("opened", "dismissed", "self_clicked"):
    _declare(f"tarn_inapp_report_{_name}", ctypes.c_void_p)
_declare("tarn_inapp_report_button_clicked", ctypes.c_void_p, ctypes.c_size_t)
_declare("tarn_inapp_release", ctypes.c_void_p, result=None)
_declare("tarn_set_consent_required", ctypes.c_int)
_declare("tarn_consent_state", ctypes.POINTER(ctypes.c_int))
_declare("tarn_grant_consent")
_declare("tarn_deny_consent")
_declare("tarn_erase_local_data", ctypes.c_int)
_declare("tarn_set_log_handler", _LOG, ctypes.c_void_p)
_declare("tarn_set_log_level", ctypes.c_int)
_declare("tarn_run_pending", ctypes.c_uint32, ctypes.POINTER(ctypes.c_size_t))


def _check(status: int) -> None:
    if status != 0:
        message = (_lib_last_error() or b"").decode("utf-8", "replace")
        raise _ERRORS.get(status, TarnError)(status, message)


def _text(value: Optional[str]) -> Optional[bytes]:
    return None if value is None else value.encode("utf-8")


def _json(value: Optional[Mapping[str, Any]]) -> Optional[bytes]:
    """Parameters as the library takes them: None for none, else JSON text; the library refuses
    anything that is not an object."""
    if value is None:
        return None
    if isinstance(value, (str, bytes)):
        return value.encode("utf-8") if isinstance(value, str) else value
    return json.dumps(value, ensure_ascii=False, separators=(",", ":")).encode("utf-8")


def _get(function: Callable[..., int], *leading: Any) -> str:
    needed = ctypes.c_size_t(0)
    _check(function(*leading, None, 0, ctypes.byref(needed)))
    while True:
        buffer = ctypes.create_string_buffer(needed.value)
        status = function(*leading, buffer, needed.value, ctypes.byref(needed))
        if status != _BUFFER_TOO_SMALL:  # the value may have grown in between
            _check(status)
            return buffer.value.decode("utf-8", "replace")


# Everything the library may call back into stays referenced here for as long as it may.
# An action callback is kept per callable, so a host that passes the same function with every event
# keeps one wrapper; a new lambda per event keeps one per event.
_keep_lock = threading.Lock()
_kept_actions: Dict[Any, Any] = {}
_log_handler: Any = None
_presenter: Any = None


@atexit.register
def _detach() -> None:
    """The library's threads outlive the interpreter: they must not call into it once it ends."""
    _lib.tarn_set_log_handler(_LOG(), None)
    _lib.tarn_set_inapp_presenter(_PRESENT(), None)


# ---- Initialisation ----

_STATUS_NAMES = {0: "initializing", 1: "initialized", 2: "notInitialized", 3: "initializeFailed"}


def initialize(application_name: str = "", *, actor_id: Optional[str] = None,
               authorization: Optional[str] = None, application_lifecycle_auto: bool = False,
               send_activity_lifecycle_events: bool = False, force_initialize: bool = False,
               app_group: Optional[str] = None, bundle_dir: Optional[str] = None,
               data_dir: Optional[str] = None, main_queue: str = "thread") -> None:
    """Initialises the library; returns at once (see :func:`initialize_status`).

    ``bundle_dir`` holds "TarnService-Info.plist" (default: $TARN_MAIN_BUNDLE, else the
    program's folder); ``main_queue`` is "thread" (the library's own) or "pumped" (call
    :func:`run_pending`), chosen by the first initialisation."""
    if main_queue not in ("thread", "pumped"):
        raise ValueError('main_queue is "thread" or "pumped"')
    options = _Options(size=ctypes.sizeof(_Options), application_name=_text(application_name),
                       actor_id=_text(actor_id), authorization=_text(authorization),
                       application_lifecycle_auto=int(application_lifecycle_auto),
                       send_activity_lifecycle_events=int(send_activity_lifecycle_events),
                       force_initialize=int(force_initialize), app_group=_text(app_group),
                       bundle_dir=_text(bundle_dir), data_dir=_text(data_dir),
                       main_queue=1 if main_queue == "pumped" else 0)
    _check(_lib.tarn_initialize(ctypes.byref(options)))


def initialize_status() -> str:
    """"initializing", "initialized", "notInitialized" or "initializeFailed"."""
    status = ctypes.c_int(-1)
    _check(_lib.tarn_initialize_status(ctypes.byref(status)))
    return _STATUS_NAMES.get(status.value, "unknown")


# ---- Identity and tokens ----

def actor_id() -> str:
    """The current actor identifier (the host's or a guest identifier)."""
    return _get(_lib.tarn_get_actor_id)


def app_group_actor_id(app_group: str) -> Optional[str]:
    """The actor identifier stored in an app group's preferences, or None."""
    try:
        return _get(_lib.tarn_get_app_group_actor_id, _text(app_group))
    except NotFoundError:
        return None


def set_push_token(token: str) -> None:
    """Stores the push provider's token; a changed token sends "push_token_change"."""
    _check(_lib.tarn_set_push_token(_text(token)))


# ---- Privacy ----

_CONSENT_NAMES = {0: "notAsked", 1: "granted", 2: "denied"}


def set_consent_required(required: bool) -> None:
    """With True, nothing is stored or sent until grant_consent(); call it before initialize(),
    at every launch (the switch is not kept; the user's answer is)."""
    _check(_lib.tarn_set_consent_required(1 if required else 0))


def consent_state() -> str:
    """The user's stored answer: "notAsked", "granted" or "denied"."""
    state = ctypes.c_int(-1)
    _check(_lib.tarn_consent_state(ctypes.byref(state)))
    return _CONSENT_NAMES.get(state.value, "unknown")


def grant_consent() -> None:
    """Stores that the user agrees; an initialisation waiting for it runs now."""
    _check(_lib.tarn_grant_consent())


def deny_consent() -> None:
    """Stores that the user declines: tracking stops and every queued event is deleted."""
    _check(_lib.tarn_deny_consent())


def erase_local_data(keep_consent: bool = False) -> None:
    """Deletes everything the library keeps on this device (the consent answer too unless
    keep_consent); tracking stays off until the next initialize()."""
    _check(_lib.tarn_erase_local_data(1 if keep_consent else 0))


def push_token() -> str:
    """The push provider's token as stored ("" when none)."""
    return _get(_lib.tarn_get_push_token)


def set_apns_token(token: bytes) -> None:
    """Stores the platform device token (bytes) as lower-case hex text."""
    _check(_lib.tarn_set_apns_token(bytes(token), len(token)))


def apns_token() -> str:
    """The platform device token as stored, lower-case hex."""
    return _get(_lib.tarn_get_apns_token)


# ---- Events ----

def send_custom_event(event_name: str, parameters: Optional[Mapping[str, Any]] = None, *,
                      screen: Optional[str] = None, page_name: Optional[str] = None,
                      on_action: Optional[Callable[[Dict[str, Any]], None]] = None) -> None:
    """A custom event; it may show the in-app communication that names it. ``on_action`` gets the
    action a user picks there, as a dict such as {"link": "shop://cart", "type": "deep"}; it is
    kept alive for the rest of the process (pass the same function each time, not a new lambda,
    to keep one)."""
    callback: Any = _ACTION()
    if on_action is not None:
        key: Any = on_action
        try:
            hash(key)
        except TypeError:
            key = id(on_action)  # the value below keeps the callable, so the id stays its own
        with _keep_lock:
            kept = _kept_actions.get(key)
            if kept is None:
                def relay(action_json: bytes, _user_data: Any) -> None:
                    on_action(json.loads(action_json.decode("utf-8")))
                kept = _kept_actions[key] = (on_action, _ACTION(relay))
            callback = kept[1]
    _check(_lib.tarn_send_custom_event(_text(screen), _text(page_name), _text(event_name),
                                       _json(parameters), callback, None))


def send_login_event(actor_id: str, parameters: Optional[Mapping[str, Any]] = None, *,
                     screen: Optional[str] = None, page_name: Optional[str] = None) -> None:
    """Logs ``actor_id`` in and sends "login"."""
    _check(_lib.tarn_send_login_event(_text(screen), _text(page_name), _text(actor_id),
                                      _json(parameters)))


def send_logout_event() -> None:
    """Sends "logout", then switches to the stored guest identifier."""
    _check(_lib.tarn_send_logout_event())


def send_page_in_event(screen: Optional[str], page_name: Optional[str] = None) -> None:
    """Manual page tracking; ignored while automatic page tracking is on or without a screen."""
    _check(_lib.tarn_send_page_in_event(_text(screen), _text(page_name)))


def send_page_out_event(screen: Optional[str], page_name: Optional[str] = None) -> None:
    """Sends "page_out"; see :func:`send_page_in_event`."""
    _check(_lib.tarn_send_page_out_event(_text(screen), _text(page_name)))


def send_app_background_event(screen: Optional[str], page_name: Optional[str] = None) -> None:
    """Manual lifecycle tracking; ignored while it is automatic or without a screen."""
    _check(_lib.tarn_send_app_background_event(_text(screen), _text(page_name)))


def send_app_foreground_event(screen: Optional[str], page_name: Optional[str] = None) -> None:
    """Sends "app_foreground"; see :func:`send_app_background_event`."""
    _check(_lib.tarn_send_app_foreground_event(_text(screen), _text(page_name)))


def send_application_error_event(error: BaseException) -> None:
    """"application_error" with the exception's message and its type's qualified name."""
    kind = type(error)
    name = kind.__qualname__ if kind.__module__ == "builtins" else \
        f"{kind.__module__}.{kind.__qualname__}"
    _check(_lib.tarn_send_application_error_event(_text(str(error)), _text(name)))


def _push(name: str, notification: Mapping[str, Any]) -> None:
    if notification is None:
        raise NullArgumentError(1, "notification is None")
    _check(getattr(_lib, f"tarn_send_push_notification_{name}_event")(_json(notification)))


def send_push_notification_clicked_event(notification: Mapping[str, Any]) -> None:
    """The user opened a push notification (its user-info dictionary)."""
    _push("clicked", notification)


def send_push_notification_dismissed_event(notification: Mapping[str, Any]) -> None:
    """The push notification was dismissed."""
    _push("dismissed", notification)


def send_push_notification_received_event(notification: Mapping[str, Any]) -> None:
    """The push notification was received."""
    _push("received", notification)


def send_push_notification_denied_event(notification: Mapping[str, Any]) -> None:
    """The user denied notifications."""
    _push("denied", notification)


# ---- In-app screens ----

class InApp:
    """One presentation of an in-app communication: ``description`` holds its rows (title,
    images, body, buttons with their "index") and the communication itself."""

    def __init__(self, handle: int, description: Dict[str, Any]) -> None:
        self._handle: Optional[int] = handle
        self.description = description

    def _call(self, name: str, *args: Any) -> None:
        if self._handle is None:
            raise StateError(7, "this presentation was released")
        _check(getattr(_lib, f"tarn_inapp_report_{name}")(self._handle, *args))

    def report_opened(self) -> None:
        """Sends "in_app_opened"."""
        self._call("opened")

    def report_dismissed(self) -> None:
        """Sends "in_app_dismissed"."""
        self._call("dismissed")

    def report_self_clicked(self) -> None:
        """Sends "in_app_self_clicked"."""
        self._call("self_clicked")

    def report_button_clicked(self, index: int) -> None:
        """Sends "in_app_button_clicked" for button ``index``, then hands its action to the
        event's ``on_action``."""
        self._call("button_clicked", index)

    def release(self) -> None:
        """Ends this presentation; later reports raise :class:`StateError`."""
        if self._handle is not None:
            _lib.tarn_inapp_release(self._handle)
            self._handle = None


def set_inapp_presenter(present: Optional[Callable[[InApp], None]]) -> None:
    """Registers the function that shows in-app communications (None removes it). It runs on the
    main queue and owns the :class:`InApp` it gets until it calls ``release``."""
    global _presenter
    if present is None:
        callback = _PRESENT()
    else:
        def relay(handle: int, description: bytes, _user_data: Any) -> None:
            present(InApp(handle, json.loads(description.decode("utf-8"))))
        callback = _PRESENT(relay)
    _check(_lib.tarn_set_inapp_presenter(callback, None))
    with _keep_lock:
        _presenter = callback


# ---- Log and main queue ----

LOG_OFF, LOG_ERROR, LOG_WARNING, LOG_INFO, LOG_DEBUG = -1, 0, 1, 2, 3


def set_log_handler(handler: Optional[Callable[[int, str], None]]) -> None:
    """Hands every line (level, text) to ``handler`` instead of standard output; None goes back to
    standard output. It runs on the thread that logs and must be thread-safe."""
    global _log_handler
    if handler is None:
        callback = _LOG()
    else:
        def relay(level: int, line: bytes, _length: int, _user_data: Any) -> None:
            handler(level, line.decode("utf-8", "replace"))
        callback = _LOG(relay)
    _check(_lib.tarn_set_log_handler(callback, None))
    with _keep_lock:
        _log_handler = callback


def set_log_level(level: int) -> None:
    """Keeps only lines at or above ``level`` (LOG_OFF: none)."""
    _check(_lib.tarn_set_log_level(level))


def run_pending(timeout_ms: int = 0) -> int:
    """With ``main_queue="pumped"``: runs the main queue's due tasks on this thread, waiting up to
    ``timeout_ms`` for one; returns how many ran."""
    ran = ctypes.c_size_t(0)
    _check(_lib.tarn_run_pending(timeout_ms, ctypes.byref(ran)))
    return ran.value

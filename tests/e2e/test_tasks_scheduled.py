"""Scheduled tasks: what is left with the daemon of timed events, what its calls do, and what a restart keeps."""

import dbus
import pytest

import tasker
from stack.mocks import TimedDaemon
from stack.service import SESSION_NAME
from stack.user_session import UserSession
from stack.waiting import until
from tasker import SAMPLE, Invoker, task_id

EVERY_HOUR, EVERY_MONTH, EVERY_DAY = list(range(24)), list(range(12)), list(range(7))


@pytest.fixture
def timed(stack):
    with TimedDaemon(stack) as daemon:
        tasker.install(stack)
        stack.start()
        yield stack, daemon
        assert daemon.complaints == []


def numbers(*values):
    return dbus.Array(values, signature="d")


def schedule(**lists):
    return tasker.variant_map(lists)


def only(daemon):
    """Cookie and event, once there is one, and the service knows its cookie."""
    until(lambda: daemon.events, "the event")
    daemon.settle()
    (cookie, event), = daemon.events.items()
    return cookie, event


def conditions(stack):
    """What is stored of the task's conditions; the file is written in the service's own time."""
    return tasker.stored(stack).get(task_id("late"), {}).get("conditionData", {})


def wait_cookie(stack, cookie):
    until(lambda: conditions(stack) == {"Schedule": {"cookieId": cookie}}, "the cookie to be stored",
          detail=lambda: str(tasker.stored(stack)))


# --- what is left with the daemon ---

def test_single_event(timed):
    stack, daemon = timed
    tasker.start(stack, "late", StartTime="2099-01-02T03:04:05")
    _, (attributes, user_mode, time, recurrences, actions) = only(daemon)
    assert attributes == {"eventId": task_id("late"), "APPLICATION": "Procwarden"}
    assert (user_mode, recurrences) == (True, [])
    assert time.startswith("2099-01-02T03:04") # seconds are dropped
    assert actions == [["org.kestrix.Procwarden", "EventTriggered", "/org/kestrix/Procwarden/Timed",
                        "org.kestrix.Procwarden.Timed", True, True]]
    assert tasker.services(stack) == {}


@pytest.mark.parametrize("lists, months, week_days, hours, minutes", [
    ({"Hours": numbers(3)}, EVERY_MONTH, EVERY_DAY, [3], [0]),
    ({}, EVERY_MONTH, EVERY_DAY, EVERY_HOUR, [0]),
    ({"Months": numbers(0, 11), "WeekDays": numbers(6), "Minutes": numbers(45, 0)}, [0, 11], [6], EVERY_HOUR, [0, 45]),
    ({"Minutes": numbers(0, 15, 30, 45)}, EVERY_MONTH, EVERY_DAY, EVERY_HOUR, [0, 15, 30, 45]),
])
def test_recurrent_event(timed, lists, months, week_days, hours, minutes):
    stack, daemon = timed
    tasker.start(stack, "late", Schedule=schedule(**lists))
    _, (_, _, time, ((*all_lists, start, end),), _) = only(daemon)
    assert time == ""
    given = [sorted(values) for values in all_lists]
    assert (given[0], given[2], given[3], given[4]) == (months, week_days, hours, minutes)
    assert given[1] == list(range(1, 32))
    assert (start, end) == ("", "")


def test_start_and_end_of_a_recurrence(timed):
    stack, daemon = timed
    tasker.start(stack, "late", Schedule=schedule(StartDate="2099-01-01T00:00:00", EndDate="2099-02-01T00:00:00"))
    _, (_, _, time, (recurrence,), _) = only(daemon)
    assert time == ""
    assert recurrence[-2].startswith("2099-01-01T00:00:00") and recurrence[-1].startswith("2099-02-01T00:00:00")


def test_start_that_is_the_end_makes_a_single_event(timed):
    stack, daemon = timed
    tasker.start(stack, "late", Schedule=schedule(StartDate="2099-01-01T00:00:00", EndDate="2099-01-01T00:00:00",
                                                  Hours=numbers(3)))
    _, (_, _, time, recurrences, _) = only(daemon)
    assert time.startswith("2099-01-01T00:00") and recurrences == []


def test_both_kinds_make_two_events(timed):
    stack, daemon = timed
    tasker.start(stack, "late", Schedule=schedule(), StartTime="2099-01-01T00:00:00")
    until(lambda: len(daemon.events) == 2, "two events")
    # They bear the same name: one call is enough for both.
    daemon.fire(min(daemon.events))
    tasker.wait_running(stack, "late")


# --- calls ---

def test_each_call_runs_the_task_once(timed):
    stack, daemon = timed
    tasker.start(stack, "late", params=["--exit", "0"], Schedule=schedule(Hours=numbers(3)))
    cookie, _ = only(daemon)
    for count in (1, 2, 3):
        daemon.fire(cookie)
        until(lambda: stack.service.log().count("Started task") == count, "the start", detail=stack.service.log)
        tasker.wait_ended(stack, "late")
    assert list(daemon.events) == [cookie] and daemon.cancelled == []


@pytest.mark.parametrize("attributes", [
    {"eventId": task_id("other")}, {"eventId": task_id("late") + "x"}, {"eventId": SAMPLE},
    {"APPLICATION": "Procwarden"},
    {}, {"eventId": ""}, {"eventId": 5}, {"eventId": dbus.Array([task_id("late")] * 2, signature="s")},
    {"eventId": tasker.variant_map({"a": 1})},
])
def test_call_for_another_event_runs_nothing(timed, attributes):
    stack, daemon = timed
    tasker.start(stack, "late", Schedule=schedule())
    cookie, _ = only(daemon)
    daemon.fire(**attributes)
    stack.control.running()
    assert tasker.services(stack) == {}
    if attributes.get("eventId") in (None, ""):
        stack.service.wait_for_log("Received empty eventId from timed")
    daemon.fire(cookie)
    tasker.wait_running(stack, "late")


def test_call_before_the_first_scheduled_task_is_kept_for_it(timed):
    stack, daemon = timed
    daemon.fire(eventId=task_id("late"))
    daemon.fire(eventId=task_id("late"))
    stack.control.running()
    tasker.start(stack, "late", Schedule=schedule())
    tasker.wait_running(stack, "late")
    assert stack.service.log().count("Started task") == 1


def test_flood_of_calls(timed):
    stack, daemon = timed
    for number in range(2_000):
        daemon.fire(eventId=f"org.example.None.task_t{number}")
    tasker.start(stack, "late", Schedule=schedule())
    cookie, _ = only(daemon)
    for _ in range(200):
        daemon.fire(cookie)
    tasker.wait_running(stack, "late")
    assert stack.service.log().count("Started task") == 1


# --- the end of a task, and of the service ---

def test_removal_cancels_the_event(timed):
    stack, daemon = timed
    tasker.start(stack, "late", Schedule=schedule())
    cookie, _ = only(daemon)
    tasker.stop(stack, "late", disable=False)
    stack.control.running()
    assert daemon.cancelled == []
    tasker.stop(stack, "late")
    until(lambda: daemon.cancelled == [cookie], "the cancelling")
    assert "Error cancelling timed event:" not in stack.service.log()


def test_new_request_replaces_the_event(timed):
    stack, daemon = timed
    tasker.start(stack, "late", Schedule=schedule())
    first, _ = only(daemon)
    tasker.start(stack, "late", StartTime="2099-01-01T00:00:00")
    until(lambda: daemon.cancelled == [first], "the end of the first event")
    until(lambda: len(daemon.events) == 1, "the second event")
    assert first not in daemon.events


def test_stored_task_finds_its_event_again(timed):
    stack, daemon = timed
    tasker.start(stack, "late", Schedule=schedule(Hours=numbers(3)), Autostart=True)
    cookie, _ = only(daemon)
    wait_cookie(stack, cookie)
    assert tasker.stored(stack)[task_id("late")]["hints"] == {"Schedule": {"Hours": [3]}}
    for _ in range(2):
        stack.restart_service()
        assert list(daemon.events) == [cookie]
        daemon.fire(cookie)
        tasker.wait_running(stack, "late")
    tasker.stop(stack, "late")
    until(lambda: daemon.cancelled == [cookie], "the cancelling")
    until(lambda: tasker.stored(stack) == {}, "the task to be forgotten")


def test_call_that_comes_while_the_service_starts_is_not_lost(timed):
    stack, daemon = timed
    tasker.start(stack, "late", Schedule=schedule(), Autostart=True)
    cookie, _ = only(daemon)
    wait_cookie(stack, cookie)
    assert stack.service.stop() == 0
    until(lambda: not stack.session_bus.owner(SESSION_NAME), "the end of the name")
    stack.start_service(wait=False)
    stack.service.wait_for_name(stack.session_bus, SESSION_NAME)
    daemon.fire(cookie)
    tasker.wait_running(stack, "late")


def test_event_of_a_task_that_is_not_stored_stays_and_does_nothing(timed):
    stack, daemon = timed
    tasker.start(stack, "late", Schedule=schedule())
    cookie, _ = only(daemon)
    stack.restart_service()
    daemon.fire(cookie)
    stack.control.running()
    assert tasker.services(stack) == {}
    assert daemon.cancelled == []


# --- a daemon that does not do what it should ---

def test_daemon_that_refuses(timed):
    stack, daemon = timed
    daemon.refuse = "org.freedesktop.DBus.Error.AccessDenied"
    tasker.start(stack, "late", Schedule=schedule())
    stack.service.wait_for_log(f'Could not create timed event for "{task_id("late")}"')
    tasker.stop(stack, "late")
    # With the number that no event has.
    until(lambda: daemon.cancelled == [4294967295], "the cancelling")
    stack.service.wait_for_log("Error cancelling timed event:")


def test_absent_daemon(service):
    tasker.install(service)
    tasker.start(service, "late", Schedule=schedule(), Autostart=True)
    service.service.wait_for_log(f'Could not create timed event for "{task_id("late")}"')
    assert tasker.services(service) == {}
    tasker.stop(service, "late")
    service.service.wait_for_log("Error cancelling timed event:")


def test_daemon_that_answers_late(timed):
    stack, daemon = timed
    daemon.hold()
    tasker.start(stack, "late", Schedule=schedule(), Autostart=True)
    # The service does not wait for it.
    tasker.start(stack, "work")
    tasker.wait_running(stack)
    daemon.release()
    cookie, _ = only(daemon)
    wait_cookie(stack, cookie)


def test_answer_for_a_task_that_has_gone_leaves_no_event(timed):
    stack, daemon = timed
    daemon.hold()
    tasker.start(stack, "late", Schedule=schedule())
    tasker.stop(stack, "late")
    daemon.release()
    until(lambda: daemon.events == {}, "the event to be cancelled")
    assert stack.service.status is None


# --- the real one, with the user's own manager ---

def test_task_runs_at_its_time(stack):
    tasker.install(stack)
    with UserSession(stack) as session:
        stack.start_helper()
        stack.session_bus, private = session.bus, stack.session_bus
        try:
            service = stack.start_service(DBUS_SESSION_BUS_ADDRESS=session.bus.address)
            # Past, so that it is due at once.
            invoker = Invoker(stack, "scheduled")
            assert invoker.start("late", StartTime="2020-01-01T00:00:00", Autostart=1) == 0
            until(lambda: invoker.active(), "the task to run", detail=service.log)
            schedule_data = until(lambda: conditions(stack).get("Schedule"), "the cookie to be stored")
            assert schedule_data["cookieId"] > 0
            invoker.stop("late")
            until(lambda: not invoker.active(), "the end of the task")
            assert service.stop() == 0
        finally:
            stack.session_bus = private

#!/usr/bin/env python3
"""Checks a trace against the rules of the trace event format, and what a run must have left in it.

Exit code 1, and a line each, for what is wrong.
"""
import argparse
import collections
import json
import re
import sys

PHASES = {"M", "X", "i", "C", "b", "e", "s", "t", "f"}
problems = []


def complain(what, event=None):
    problems.append(what if event is None else f"{what}: {json.dumps(event)[:200]}")


def ns(microseconds):
    return round(microseconds * 1000)


def check_fields(events):
    for event in events:
        if event.get("ph") not in PHASES:
            complain("unknown phase", event)
        elif not all(isinstance(event.get(field), int) for field in ("pid", "tid")) or not event.get("name"):
            complain("no process, track or name", event)
        elif event["ph"] == "X" and event.get("dur", -1) < 0:
            complain("a slice without a duration", event)
        elif event["ph"] == "C" and not all(
                isinstance(value, (int, float)) for value in event["args"].values()):
            complain("a counter that does not count", event)


def check_order(events):
    times = [ns(event["ts"]) for event in events if event["ph"] != "M"]
    if times != sorted(times):
        complain("times do not rise")
    if times and times[0] < 0:
        complain("an event before the start")


def check_names(events):
    named = {(e["name"], e["pid"], e["tid"]) for e in events if e["ph"] == "M" and e["args"]["name"]}
    for event in events:
        if event["ph"] == "M":
            continue
        if ("process_name", event["pid"], 0) not in named:
            complain("a process without a name", event)
        if ("thread_name", event["pid"], event["tid"]) not in named:
            complain("a track without a name", event)


def slices_by_track(events):
    tracks = collections.defaultdict(list)
    for event in events:
        if event["ph"] == "X":
            start = ns(event["ts"])
            tracks[event["pid"], event["tid"]].append((start, start + ns(event["dur"]), event))
    return tracks


def check_nesting(tracks):
    for slices in tracks.values():
        open_ends = []
        for start, end, event in slices:
            while open_ends and open_ends[-1] <= start:
                open_ends.pop()
            if open_ends and end > open_ends[-1]:
                complain("slices cross", event)
            open_ends.append(end)


def check_asyncs(events):
    waiting = {}
    for event in events:
        key = (event["pid"], event.get("cat"), event.get("id"))
        if event["ph"] == "b" and waiting.setdefault(key, event) is not event:
            complain("begun twice", event)
        if event["ph"] == "e" and waiting.pop(key, None) is None:
            complain("ended without a beginning", event)
    for event in waiting.values():
        complain("never ended", event)


def check_flows(events, tracks):
    flows = collections.defaultdict(list)
    for event in events:
        if event["ph"] in "stf":
            flows[event["cat"], event["id"]].append(event)
            track = tracks[event["pid"], event["tid"]]
            if not any(start <= ns(event["ts"]) <= end for start, end, _ in track):
                complain("an arrow outside of any slice", event)
    for flow in flows.values():
        phases = "".join(event["ph"] for event in flow)
        if not re.fullmatch("st*f", phases):
            complain(f"a flow of {phases}", flow[0])
    return flows


def check_session(session, events):
    if session["format"] != 1:
        complain("another format of the session")
    lines = {json.dumps(event, sort_keys=True) for event in events}
    for event in session["events"]:
        if event["cat"] in ("frame", "exchange"):
            complain("not for a page", event)
        elif event["ph"] not in "be" and json.dumps(event, sort_keys=True) not in lines:
            complain("not in the trace", event)
    begun = sum(event["ph"] == "b" and event["cat"] == "message" for event in session["events"])
    if session["figures"]["messages"] != begun:
        complain(f"{session['figures']['messages']} messages in the figures, {begun} events")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("trace")
    parser.add_argument("session", nargs="?")
    parser.add_argument("--has", nargs="*", default=[], help="events that must be there, as in \"app: process\"")
    options = parser.parse_args()
    with open(options.trace, encoding="utf-8") as file:
        events = json.load(file)["traceEvents"]
    check_fields(events)
    check_order(events)
    check_names(events)
    tracks = slices_by_track(events)
    check_nesting(tracks)
    check_asyncs(events)
    flows = check_flows(events, tracks)
    processes = {e["pid"]: e["args"]["name"] for e in events if e["name"] == "process_name"}
    there = {f"{processes.get(event['pid'])}: {event['name']}" for event in events}
    for wanted in options.has:
        if wanted not in there:
            complain(f"there is no \"{wanted}\"")
    if options.session:
        with open(options.session, encoding="utf-8") as file:
            check_session(json.load(file), events)
    print(f"{len(events)} events, {len(flows)} flows, {len(tracks)} tracks with slices")
    for problem in problems[:20]:
        print(problem, file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())

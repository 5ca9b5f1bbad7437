"""Holds the discovery message of the bridge against what Home Assistant documents for MQTT devices:
the keys of each platform, the required ones, and what the templates make of real documents.
Usage: home_assistant.py DIRECTORY     with the files config, state and event."""

import json
import pathlib
import sys

import jinja2

DIRECTORY = pathlib.Path(sys.argv[1])
CONFIG, STATE, EVENT = (json.loads((DIRECTORY / name).read_text())
                        for name in ("config", "state", "event"))

ROOT = {"device", "origin", "components", "availability", "state_topic", "qos"}
COMMON = {"platform", "unique_id", "name", "availability", "device_class", "entity_category",
          "value_template", "state_topic", "json_attributes_topic", "json_attributes_template",
          "qos", "icon", "enabled_by_default"}
PLATFORMS = {  # further keys, and those that must be there besides what the root gives
    "switch": ({"command_topic", "payload_on", "payload_off", "state_on", "state_off"},
               {"command_topic"}),
    "sensor": ({"state_class", "unit_of_measurement"}, set()),
    "binary_sensor": ({"payload_on", "payload_off"}, set()),
    "event": ({"event_types"}, {"event_types", "state_topic"}),
    "button": ({"command_topic", "payload_press"}, {"command_topic"}),
}
DEVICE = {"identifiers", "name", "model", "sw_version"}
MACHINE = {"screen": "off", "last_wake": "2026-11-25T07:00:00+00:00"}


def render(template, value):
    """What the template gives, value being the message."""
    text = value if isinstance(value, str) else json.dumps(value)
    known = {"value": text} | ({} if isinstance(value, str) else {"value_json": value})
    environment = jinja2.Environment(undefined=jinja2.StrictUndefined)
    return environment.from_string(template).render(known)


def check_keys():
    assert set(CONFIG) == ROOT, set(CONFIG) ^ ROOT
    assert set(CONFIG["device"]) <= DEVICE and CONFIG["device"]["identifiers"]
    assert CONFIG["origin"]["name"]
    ids = set()
    for name, component in CONFIG["components"].items():
        further, required = PLATFORMS[component["platform"]]
        if set(component) == {"platform"}:
            continue  # removed
        assert set(component) <= COMMON | further, (name, set(component))
        assert required <= set(component), (name, required)
        ids.add(component["unique_id"])
    removed = [c for c in CONFIG["components"].values() if set(c) == {"platform"}]
    assert len(ids) == len(CONFIG["components"]) - len(removed)


def check_templates():
    unknown = {"halted": None, "next_on": None, "next_off": None, "machine": None,
               "problems": ["It hangs."]}
    there = STATE | {"machine": MACHINE, "problems": []}
    values = {  # of the component: from the state, without a daemon
        "halt_on": ("off", "None"), "halt_off": ("off", "None"),
        "next_on": (STATE["next_on"]["next"], "None"), "next_off": ("None", "None"),
        "problem": ("OFF", "ON"), "screen": ("off", "None"),
        "last_wake": (MACHINE["last_wake"], "None"),
    }
    for name, (now, without) in values.items():
        template = CONFIG["components"][name]["value_template"]
        assert render(template, there) == now, (name, render(template, there))
        assert render(template, unknown) == without, name
    attributes = CONFIG["components"]["problem"]["json_attributes_template"]
    assert json.loads(render(attributes, unknown)) == {"problems": ["It hangs."]}
    event = json.loads(render(CONFIG["components"]["event"]["value_template"], EVENT))
    assert event["event_type"] == "added" in CONFIG["components"]["event"]["event_types"]
    for device, asleep in ((CONFIG, "offline"), (CONFIG["components"]["next_on"], "online")):
        available = device["availability"][0]["value_template"]
        assert [render(available, value) for value in ("online", "asleep", "offline")] == [
            "online", asleep, "offline"]
    for component in CONFIG["components"].values():
        for order in {"payload_on", "payload_off", "payload_press"} & set(component):
            assert json.loads(component[order])


check_keys()
check_templates()

#!/usr/bin/python3
"""Sets up and reads a Zabbix 6.0 through its API. ZABBIX_URL is the address of the frontend.

zabbix_api.py import FILE         imports a template
zabbix_api.py host NAME TEMPLATE  creates the host NAME with a template
zabbix_api.py problems            lists all problems, the oldest first: state, severity, key and name, separated by tabs

The user and the password come from ZABBIX_USER and ZABBIX_PASSWORD; the defaults are those of a new installation.
"""
import json
import os
import sys
import urllib.request

SEVERITIES = ("Not classified", "Information", "Warning", "Average", "High", "Disaster")


class Api:
    def __init__(self):
        self.url = os.environ["ZABBIX_URL"] + "/api_jsonrpc.php"
        self.session = None
        self.session = self.call("user.login", username=os.environ.get("ZABBIX_USER", "Admin"),
                                 password=os.environ.get("ZABBIX_PASSWORD", "zabbix"))

    def call(self, method, **parameters):
        document = {"jsonrpc": "2.0", "method": method, "params": parameters, "id": 1, "auth": self.session}
        request = urllib.request.Request(
            self.url, json.dumps(document).encode(), {"Content-Type": "application/json-rpc"})
        with urllib.request.urlopen(request) as response:
            answer = json.load(response)
        if "error" in answer:
            sys.exit(f"{method}: {answer['error']['data']}")
        return answer["result"]


def import_template(api, path):
    change = {"createMissing": True, "updateExisting": True}
    with open(path, encoding="utf-8") as file:
        api.call("configuration.import", format="yaml", source=file.read(), rules={
            "groups": {"createMissing": True}, "templates": change, "items": change, "triggers": change})


def create_host(api, name, template):
    group, = api.call("hostgroup.get", filter={"name": "Linux servers"})
    found, = api.call("template.get", filter={"host": template})
    api.call("host.create", host=name, groups=[{"groupid": group["groupid"]}],
             templates=[{"templateid": found["templateid"]}])


def print_problems(api):
    for event in api.call("event.get", value=1, selectTags="extend", sortfield=["clock", "eventid"]):
        state = "problem" if event["r_eventid"] == "0" else "resolved"
        key = next((tag["value"] for tag in event["tags"] if tag["tag"] == "key"), "")
        print(state, SEVERITIES[int(event["severity"])], key, event["name"], sep="\t")


COMMANDS = {("import", 1): import_template, ("host", 2): create_host, ("problems", 0): print_problems}

if __name__ == "__main__":
    command = COMMANDS.get((*sys.argv[1:2], len(sys.argv) - 2))
    if not command:
        sys.exit(__doc__)
    command(Api(), *sys.argv[2:])

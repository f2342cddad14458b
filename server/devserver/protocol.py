"""The agent's protocol as data: docs/openrpc.json, loaded once, and the
check of every message the agent sends against it.

    proto = Protocol()                 # or Protocol(path)
    proto.method("dxGetAbout")         # the OpenRPC method object, or None
    problems = proto.check(raw, data, method)   # [] when the message conforms

`method` is the name of the request the message answers (None when the
server does not know it).  A reply is checked against that method's result
schema and error list; a notification against its params; a streamed log
result against StreamedLogMessage; anything else against the envelope.
"""
import json
import os

import jsonschema

_TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
DEFAULT_DOCUMENT = os.path.join(_TOP, "docs", "openrpc.json")


class Protocol(object):
    def __init__(self, path=DEFAULT_DOCUMENT):
        with open(path) as fh:
            self.document = json.load(fh)
        self.path = path
        doc = self.document
        resolver = jsonschema.RefResolver("", doc)
        cls = jsonschema.Draft7Validator

        def validator(schema):
            cls.check_schema(schema)
            return cls(schema, resolver=resolver)

        self.messages = {e["code"]: e["message"] for e in doc["x-error-table"]}
        errors = doc["components"]["errors"]
        self._methods = {}
        self._results = {}
        self._errors = {}
        self._params = {}
        for m in doc["methods"]:
            name = m["name"]
            self._methods[name] = m
            if "result" in m:
                self._results[name] = validator(m["result"]["schema"])
            codes = set()
            for e in m.get("errors", []):
                if "$ref" in e:
                    e = errors[e["$ref"].rsplit("/", 1)[1]]
                codes.add(e["code"])
            self._errors[name] = codes
            props = {p["name"]: p["schema"] for p in m["params"]}
            required = [p["name"] for p in m["params"] if p.get("required")]
            self._params[name] = validator({"type": "object", "properties": props,
                                            "required": required,
                                            "additionalProperties": False})
        schemas = doc["components"]["schemas"]
        self._reply = validator(schemas["Reply"])
        self._stream = validator({"$ref": "#/components/schemas/StreamedLogMessage"})
        self._notification = validator(schemas["Notification"])

    # ----- the document -----------------------------------------------------

    def method(self, name):
        return self._methods.get(name)

    @property
    def methods(self):
        """Requests the server can send (the notifications left out)."""
        return [m for m in self.document["methods"] if not m.get("x-notification")]

    @property
    def notifications(self):
        return [m for m in self.document["methods"] if m.get("x-notification")]

    def template(self, name, device_id=None):
        """The example params of a method as an object (deviceId set)."""
        m = self._methods[name]
        params = {}
        for ex in m.get("examples", [])[:1]:
            params = {p["name"]: p["value"] for p in ex["params"]}
        if device_id is not None and "deviceId" in params:
            params["deviceId"] = device_id
        return params

    def changes_device(self, name):
        m = self._methods.get(name)
        return bool(m and m.get("x-changes-device"))

    # ----- checking what the agent sent ---------------------------------------

    @staticmethod
    def _problems(validator, instance, where):
        return ["%s: %s at %s" % (where, e.message, "/".join(str(p) for p in e.absolute_path) or "top")
                for e in validator.iter_errors(instance)]

    def check(self, raw, data, method=None):
        """Problems of one message the agent sent ([] when it conforms)."""
        if not isinstance(data, dict):
            return ["not a JSON object: %.200s" % raw]
        if "method" in data:
            problems = self._problems(self._notification, data, "notification")
            name = data.get("method")
            if not problems and name in self._params:
                problems = self._problems(self._params[name], data["params"], name + " params")
            return problems
        if data.get("stream") is True or "stream" in data:
            return self._problems(self._stream, data, "streamed result")
        problems = self._problems(self._reply, data, "reply")
        if problems:
            return problems
        has_result, has_error = "result" in data, "error" in data
        m = self._methods.get(method) if method else None
        if m is not None and m.get("x-notification"):
            m = None        # a request of a notification's name: an unknown method
        if has_result and has_error:
            return ["reply: both result and error"]
        if data["id"] is None and not has_error:
            return ["reply: id null without an error"]
        if has_error:
            code, message = data["error"]["code"], data["error"]["message"]
            if code not in self.messages:
                return ["reply: error code %r is not in the error table" % code]
            if message != self.messages[code]:
                return ["reply: error %d with message %r, the table has %r"
                        % (code, message, self.messages[code])]
            if m is not None and code not in self._errors[method]:
                return ["reply: error %d is not one %s gives" % (code, method)]
            if m is None and method is not None and code != -32601 and \
                    code not in (-32600, -32603, 10002):
                return ["reply: error %d for the unknown method %r" % (code, method)]
            return []
        if not has_result:
            if m is not None and m.get("x-result-may-be-absent"):
                return []
            return ["reply: neither result nor error%s" % (
                " (%s always has a result)" % method if m is not None else "")]
        if m is None:
            if method is not None and method not in self._methods:
                return ["reply: a result for the unknown method %r" % method]
            return []
        if method not in self._results:
            return ["reply: %s has no reply of its own" % method]
        return self._problems(self._results[method], data["result"], method + " result")

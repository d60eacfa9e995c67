"""Requests to the API and what is answered."""

import json
from dataclasses import dataclass, field


@dataclass
class Request:
    device: str  # whose token it carries; empty: none that is good
    host: str
    region: str
    method: str
    path: str
    query: dict
    headers: dict
    body: bytes

    def document(self):
        """The body as JSON object; empty when it is none."""
        try:
            value = json.loads(self.body)
        except ValueError:
            return {}
        return value if isinstance(value, dict) else {}


@dataclass
class Answer:
    status: int = 200
    body: bytes = b""
    content_type: str = "application/json"
    headers: dict = field(default_factory=dict)


def reply(code, data=None, **members):
    return {"code": code, "data": data, "msg": "success" if code == 200 else "failed", **members}


def success(data=None, **members):
    return as_answer(reply(200, data, **members))


def failure(code, text, status=200):
    return as_answer({"code": code, "msg": text}, status)


def as_answer(document, status=200):
    return Answer(status, json.dumps(document).encode())

"""Query options of the tree-served BMCs, answered as their service root says.

What a request's options do depends on the run's mode:

  advertised      options the service root's ProtocolFeaturesSupported
                  advertises are honoured, all others ignored: the plain
                  resource is served, which is what real BMCs were seen to do
  advertised-501  advertised options are honoured, any other '$' option gets
                  501 (a default build of the common open-source BMC server)
  ignore          every option is ignored
  reject-501      every option gets 501 Not Implemented

Honoured options are applied in the order a Redfish service must apply them:
$filter, $skip, $top, then $expand, excerpt and $select ('only' stands alone).
"""

import datetime
import re
from urllib.parse import unquote

MODES = ("advertised", "advertised-501", "ignore", "reject-501")
FEATURE = {"$select": "SelectQuery", "$expand": "ExpandQuery", "$filter": "FilterQuery",
           "$top": "TopSkipQuery", "$skip": "TopSkipQuery", "only": "OnlyMemberQuery",
           "excerpt": "ExcerptQuery"}
_EXPAND = re.compile(r"^([*.~])(?:\(\$levels=(\d+)\))?$")
_EXPAND_FEATURE = {"*": "ExpandAll", ".": "NoLinks", "~": "Links"}
# Always kept by $select so a client can still tell what it is looking at.
SELECT_KEEP = ("@odata.id", "@odata.type", "@odata.context")
# Sensor properties the schema marks as excerpt (the others have none we serve).
_EXCERPT = {"Sensor": ("Reading", "SpeedRPM", "PhysicalContext", "PhysicalSubContext", "CrestFactor",
                       "THDPercent", "ApparentVA", "ReactiveVAR", "PowerFactor", "PhaseAngleDegrees",
                       "LifetimeReading", "SensorResetTime")}
# Keeps one request from expanding a whole tree many levels deep.
MAX_EXPANSIONS = 20000


class QueryError(Exception):
    """An answer other than 200: status, Base message key and its arguments."""

    def __init__(self, status, key, args=()):
        super().__init__(status)
        self.status, self.key, self.args_ = status, key, list(args)


def split_query(raw_query):
    """[(name, value)] percent-decoded. A '+' stays a '+': clients put
    unencoded time-zone offsets in $filter; the filter reads '+' between
    tokens as a space."""
    pairs = []
    for part in raw_query.split("&"):
        if part:
            name, _, value = part.partition("=")
            pairs.append((unquote(name), unquote(value)))
    return pairs


def _advertised(name, value, features):
    feature = features.get(FEATURE[name])
    if name != "$expand":
        return feature is True
    if not isinstance(feature, dict):
        return False
    m = _EXPAND.match(value)
    if not m:
        return True  # malformed: answered 400 like a supported option
    return feature.get(_EXPAND_FEATURE[m.group(1)]) is True and (m.group(2) is None or feature.get("Levels") is True)


def choose(pairs, mode, features):
    """The options to honour, {name: value}; raises QueryError for a 501."""
    present = [(k, v) for k, v in pairs if k in FEATURE or k.startswith("$")]
    if not present or mode == "ignore":
        return {}
    if mode == "reject-501":
        raise QueryError(501, "QueryParameterUnsupported", [present[0][0]])
    chosen = {}
    for name, value in present:
        if name in FEATURE and _advertised(name, value, features):
            chosen[name] = value
        elif mode == "advertised-501" and name.startswith("$"):
            raise QueryError(501, "QueryParameterUnsupported", [name])
    return chosen


def is_link(value):
    return isinstance(value, dict) and len(value) == 1 and isinstance(value.get("@odata.id"), str)


def is_collection(body):
    return isinstance(body, dict) and isinstance(body.get("Members"), list)


def select_properties(body, props):
    out = {k: body[k] for k in SELECT_KEEP if k in body}
    for prop in props:
        parts = prop.split("/")
        src = body
        for part in parts[:-1]:
            src = src.get(part) if isinstance(src, dict) else None
        if not isinstance(src, dict) or parts[-1] not in src:
            continue  # unknown properties are left out, as most services do
        dst = out
        for part in parts[:-1]:
            # Copy on the way down: `body` shares dicts with the model.
            nxt = dict(dst[part]) if isinstance(dst.get(part), dict) else {}
            dst[part] = nxt
            dst = nxt
        dst[parts[-1]] = src[parts[-1]]
    return out


def _number(name, value):
    if not value.isdigit():
        raise QueryError(400, "QueryParameterValueFormatError", [value, name])
    return int(value)


def answer(model, path, chosen, features):
    """The body for GET `path` with the chosen options applied."""
    body = model.render(path)
    if not chosen:
        return body
    if "only" in chosen:
        if len(chosen) > 1:
            raise QueryError(400, "QueryCombinationInvalid")
        if chosen["only"]:
            raise QueryError(400, "QueryParameterValueFormatError", [chosen["only"], "only"])
        if not is_collection(body):
            raise QueryError(400, "QueryNotSupportedOnResource")
        members = body["Members"]
        if len(members) == 1:
            return _member(model, members[0]) or body
        return body
    # Every option is checked before any is applied: a bad one fails the request.
    select = expand = keep = None
    if "$select" in chosen:
        select = [p.strip() for p in chosen["$select"].split(",") if p.strip()]
        if not select:
            raise QueryError(400, "QueryParameterValueFormatError", [chosen["$select"], "$select"])
    if "$expand" in chosen:
        expand = _parse_expand(chosen["$expand"], features.get("ExpandQuery") or {})
    if "$filter" in chosen:
        keep = Filter(chosen["$filter"])
    skip = _number("$skip", chosen["$skip"]) if "$skip" in chosen else 0
    top = _number("$top", chosen["$top"]) if "$top" in chosen else None

    collection = is_collection(body)
    if collection and (keep or skip or top is not None):
        members = body["Members"]
        if keep:
            members = [m for m in members if keep.matches(_member(model, m))]
        body = dict(body)
        body["Members@odata.count"] = len(members)
        body["Members"] = members[skip:] if top is None else members[skip:skip + top]
    if expand:
        body = Expander(model, *expand).resource(body)
    if "excerpt" in chosen:
        body = _excerpt(body)
        if collection:
            body = _on_members(body, _excerpt)
    if select:
        if collection and "Members" not in select:
            # On a collection the selection is of its members' properties.
            members = _on_members(body, lambda m: select_properties(m, select))["Members"]
            body = dict(select_properties(body, select), Members=members,
                        **{"Members@odata.count": body.get("Members@odata.count", len(members))})
        else:
            body = select_properties(body, select)
    return body


def _member(model, member):
    """A collection member's body, whether the collection lists links or whole members."""
    if is_link(member):
        return model.expandable(member["@odata.id"])
    return member if isinstance(member, dict) else None


def _on_members(body, fn):
    """The collection with fn applied to each member it lists whole (not as a link)."""
    out = dict(body)
    out["Members"] = [fn(m) if isinstance(m, dict) and not is_link(m) else m for m in body["Members"]]
    return out


def _excerpt(body):
    schema = str(body.get("@odata.type", "")).lstrip("#").split(".")[0]
    props = _EXCERPT.get(schema)
    return body if props is None else select_properties(body, props)


def _parse_expand(value, feature):
    m = _EXPAND.match(value)
    if not m:
        raise QueryError(400, "QueryParameterValueFormatError", [value, "$expand"])
    levels = int(m.group(2)) if m.group(2) is not None else 1
    most = feature.get("MaxLevels")
    most = most if isinstance(most, int) and most > 0 else 6
    if not 1 <= levels <= most:
        raise QueryError(400, "QueryParameterOutOfRange", [value, "$expand", "1-%d" % most])
    return m.group(1), levels


class Expander:
    """Replaces links by the resources they name: '.' those outside Links, '~'
    those inside, '*' both; each expanded resource again, `levels` deep. A link
    whose target this BMC answers with an error stays a link."""

    def __init__(self, model, kind, levels):
        self.model, self.kind, self.levels = model, kind, levels
        self.budget = MAX_EXPANSIONS

    def resource(self, body):
        return self._walk(body, self.levels, False)

    def _wanted(self, in_links):
        return self.kind == "*" or (self.kind == "~") == in_links

    def _walk(self, value, levels, in_links):
        if isinstance(value, list):
            return [self._walk(v, levels, in_links) for v in value]
        if not isinstance(value, dict):
            return value
        if is_link(value):
            if levels > 0 and self.budget > 0 and self._wanted(in_links):
                target = self.model.expandable(value["@odata.id"])
                if target is not None:
                    self.budget -= 1
                    return self._walk(target, levels - 1, False)
            return value
        if levels == 0:
            return value
        return {k: self._walk(v, levels, in_links or k == "Links") for k, v in value.items()}


# -- $filter ---------------------------------------------------------------

_TOKEN = re.compile(r"""[\s+]*(?:
    (?P<paren>[()])
  | (?P<string>'(?:[^']|'')*')
  | (?P<time>\d{4}-\d\d-\d\dT[0-9:.]+(?:Z|[+-]\d\d:\d\d)?)
  | (?P<number>-?\d+(?:\.\d+)?)(?![\w.])
  | (?P<word>[A-Za-z_@#][\w@#./]*)
  )""", re.X)
_COMPARE = {"eq": lambda a, b: a == b, "ne": lambda a, b: a != b, "gt": lambda a, b: a > b,
            "ge": lambda a, b: a >= b, "lt": lambda a, b: a < b, "le": lambda a, b: a <= b}
_LITERALS = {"true": True, "false": False, "null": None}


def _as_time(text):
    if not isinstance(text, str) or not re.match(r"^\d{4}-\d\d-\d\dT", text):
        return None
    try:
        value = datetime.datetime.fromisoformat(text[:-1] + "+00:00" if text.endswith("Z") else text)
    except ValueError:
        return None
    return value if value.tzinfo else value.replace(tzinfo=datetime.timezone.utc)


def _as_number(value):
    if isinstance(value, bool):
        return None
    if isinstance(value, (int, float)):
        return value
    try:
        return float(value)
    except (TypeError, ValueError):
        return None


def _compare(actual, op, literal):
    if literal is None or actual is None or isinstance(literal, bool) or isinstance(actual, bool):
        return op in ("eq", "ne") and _COMPARE[op](actual, literal)
    if isinstance(literal, (int, float)):
        a, b = _as_number(actual), literal  # "Id gt 5" on Ids that are numeric strings
    elif _as_time(literal) and _as_time(actual):
        a, b = _as_time(actual), _as_time(literal)  # offsets differ between entries
    elif isinstance(actual, (int, float)):
        a, b = actual, _as_number(literal)
    else:
        a, b = actual, literal
    if a is None or b is None or type(a) is not type(b) and not (
            isinstance(a, (int, float)) and isinstance(b, (int, float))):
        return op == "ne"
    return _COMPARE[op](a, b)


class Filter:
    """$filter: comparisons (eq ne gt ge lt le) of a property path with a
    literal, combined with and, or, not and parentheses."""

    def __init__(self, text):
        self.text = text
        self.tokens = self._tokenise(text)
        self.pos = 0
        self.tree = self._or()
        if self.pos != len(self.tokens):
            self._fail()

    def _fail(self):
        raise QueryError(400, "QueryParameterValueFormatError", [self.text, "$filter"])

    def _tokenise(self, text):
        tokens, pos = [], 0
        while text[pos:].strip(" \t\r\n+"):
            m = _TOKEN.match(text, pos)
            if not m:
                self._fail()
            kind = m.lastgroup
            raw = m.group(kind)
            if kind == "string":
                tokens.append(("literal", raw[1:-1].replace("''", "'")))
            elif kind == "time":
                tokens.append(("literal", raw))
            elif kind == "number":
                tokens.append(("literal", float(raw) if "." in raw else int(raw)))
            elif kind == "word" and raw in _LITERALS:
                tokens.append(("literal", _LITERALS[raw]))
            else:
                tokens.append((kind, raw))
            pos = m.end()
        return tokens

    def _peek(self, *values):
        if self.pos < len(self.tokens) and self.tokens[self.pos][1] in values:
            self.pos += 1
            return True
        return False

    def _next(self, kind):
        if self.pos >= len(self.tokens) or self.tokens[self.pos][0] != kind:
            self._fail()
        self.pos += 1
        return self.tokens[self.pos - 1][1]

    def _or(self):
        node = self._and()
        while self._peek("or"):
            node = ("or", node, self._and())
        return node

    def _and(self):
        node = self._unary()
        while self._peek("and"):
            node = ("and", node, self._unary())
        return node

    def _unary(self):
        if self._peek("not"):
            return ("not", self._unary())
        if self._peek("("):
            node = self._or()
            if not self._peek(")"):
                self._fail()
            return node
        prop = self._next("word")
        op = self._next("word")
        if op not in _COMPARE:
            self._fail()
        return ("cmp", prop.split("/"), op, self._next("literal"))

    def matches(self, body):
        return body is not None and self._eval(self.tree, body)

    def _eval(self, node, body):
        if node[0] == "or":
            return self._eval(node[1], body) or self._eval(node[2], body)
        if node[0] == "and":
            return self._eval(node[1], body) and self._eval(node[2], body)
        if node[0] == "not":
            return not self._eval(node[1], body)
        _, parts, op, literal = node
        value = body
        for part in parts:
            value = value.get(part) if isinstance(value, dict) else None
        return _compare(value, op, literal)

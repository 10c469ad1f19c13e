"""Loads and checks the schema files. Every mistake is reported with the file
and the type or attribute it is in, and nothing is generated from a schema
that does not pass."""

import os
import re

import yaml

from .types import (ALIASES, ATTR_KINDS, Attr, Bound, Enum, Enumerator, EntityAttr, EntityType,
                    Model, Unit, ValueType, View)

IDENT = re.compile(r"^[A-Za-z_][A-Za-z0-9_]*$")
TRAITS = {"hash", "hash-custom", "hash-memo", "less"}

UNIT_KEYS = {"unit", "doc", "types", "includes"}
ENUM_KEYS = {"enum", "doc", "values"}
VALUE_KEYS = {"value", "doc", "strep", "traits", "attrs", "methods"}
ATTR_KEYS = {"name", "type", "doc", "const", "default", "range", "view", "derived"}
ENTITY_KEYS = {"entity", "doc", "base", "baseArgs", "named", "key", "methods", "members", "mixin",
               "attrs"}
ENTITY_ATTR_KEYS = {"name", "kind", "type", "key", "doc", "default", "range", "ctor", "const",
                    "id", "logged", "shared", "keyFrom", "param", "secret", "container"}
# A plain attribute kept out of line: one pointer until it holds something
# other than its default.
BOXED = "Kel::Boxed"
# The longest-prefix tries an ordered-map keyed by prefix may be kept in.
TRIES = {"Lumo::IpTrie": "IPv4", "Lumo::Ip6Trie": "IPv6"}


class SchemaError(Exception):
    pass


def find_schema_files(root):
    found = []
    for directory, _, files in os.walk(root):
        found += [os.path.join(directory, f) for f in files if f.endswith(".yaml")]
    return sorted(found)


def load(root, files, imports=()):
    """The model of the units in `files`. `imports` lists (root, files) of
    schemas whose types the units may use but that are generated elsewhere."""
    model = Model()
    pending = []
    sources = [(r, f, True) for r, fs in imports for f in fs] + [(root, f, False) for f in files]
    for source_root, path, imported in sources:
        rel = os.path.relpath(path, source_root)
        with open(path, encoding="utf-8") as f:
            try:
                data = yaml.safe_load(f)
            except yaml.YAMLError as error:
                raise SchemaError(f"{rel}: not valid YAML: {error}") from None
        pending.append(_declare_unit(model, rel, data))
        model.units[-1].imported = imported
    # Attributes may name types of any unit, so they are read once every type
    # is declared: value types first (entities check their keys' traits), then
    # the keys and bases of entities, then their attributes.
    for define in (_define_value, _define_entity_head, _define_entity_attrs):
        kind = "value" if define is _define_value else "entity"
        for unit, bodies in pending:
            for type_, body in bodies:
                if type_.kind == kind:
                    define(model, type_, body, f"{unit.path}: {type_.name}")
    entities = [t for u in model.units for t in u.types if t.kind == "entity"]
    for type_ in entities:
        type_.subtypes = sorted((u for u in entities if u is not type_ and _derives(u, type_)),
                                key=lambda u: u.name)
    for unit in model.units:
        _check_unit(unit)
        _check_log_ids(unit)
        unit.includes = _unit_includes(unit)
        # The descriptors name their derived types, which other units may declare.
        unit.cpp_includes = sorted({u.include for t in unit.types if t.kind == "entity"
                                    for u in t.subtypes if u.unit is not unit})
    return model


def _derives(type_, base):
    while type_.base is not None:
        type_ = type_.base
        if type_ is base:
            return True
    return False


def _fail(where, message):
    raise SchemaError(f"{where}: {message}")


def _check_keys(where, data, allowed, required=()):
    if not isinstance(data, dict):
        _fail(where, "expected a mapping")
    unknown = sorted(set(data) - allowed)
    if unknown:
        _fail(where, f"unknown key '{unknown[0]}' (allowed: {', '.join(sorted(allowed))})")
    for key in required:
        if key not in data:
            _fail(where, f"missing key '{key}'")


def _declare_unit(model, rel, data):
    _check_keys(rel, data, UNIT_KEYS, ("unit", "types"))
    name = data["unit"]
    if os.path.splitext(os.path.basename(rel))[0] != name:
        _fail(rel, f"unit '{name}' must live in a file named {name}.yaml")
    if any(u.name == name for u in model.units):
        _fail(rel, f"duplicate unit '{name}'")
    unit = Unit(name, rel, os.path.dirname(rel), data.get("doc"))
    unit.extra_includes = list(data.get("includes", []) or [])
    model.units.append(unit)
    bodies = []
    for body in data["types"] or []:
        if not isinstance(body, dict):
            _fail(rel, "each entry of 'types' must be a mapping")
        kinds = [k for k in ("enum", "value", "entity") if k in body]
        if len(kinds) != 1:
            _fail(rel, "each type declares exactly one of 'enum', 'value' or 'entity'")
        kind = kinds[0]
        local = body[kind]
        # A name relative to Rsvp, or one from the top ("::TrafficEngineering::X")
        # for a platform's type that this repository stands in for.
        absolute = isinstance(local, str) and local.startswith("::")
        parts = local[2:].split("::") if absolute else str(local).split("::")
        if (not isinstance(local, str) or not all(IDENT.match(p) for p in parts)
                or (absolute and len(parts) < 2)):
            _fail(rel, f"bad type name '{local}'")
        qualified = local[2:] if absolute else f"Rsvp::{local}"
        ns = qualified.rsplit("::", 1)[0]
        if qualified in model.types:
            _fail(f"{rel}: {local}", f"duplicate type '{qualified}'")
        if kind == "enum":
            type_ = _define_enum(qualified, ns, unit, body, f"{rel}: {qualified}")
        elif kind == "entity":
            _check_keys(f"{rel}: {qualified}", body, ENTITY_KEYS)
            type_ = EntityType(qualified, ns, unit, body.get("doc"))
        else:
            _check_keys(f"{rel}: {qualified}", body, VALUE_KEYS, ("attrs",))
            type_ = ValueType(qualified, ns, unit, body.get("doc"))
        model.types[qualified] = type_
        unit.types.append(type_)
        bodies.append((type_, body))
    return unit, bodies


def _define_enum(name, ns, unit, body, where):
    _check_keys(where, body, ENUM_KEYS, ("values",))
    enumerators = []
    for item in body["values"] or []:
        if not isinstance(item, dict) or len(item) != 1:
            _fail(where, "each enumerator is a one-entry mapping 'name: number'")
        (ename, value), = item.items()
        if not isinstance(ename, str) or not IDENT.match(ename):
            _fail(where, f"bad enumerator name '{ename}'")
        if not isinstance(value, int) or isinstance(value, bool) or not 0 <= value < 2**32:
            _fail(where, f"enumerator '{ename}' needs a number from 0 to 4294967295")
        for other in enumerators:
            if other.name == ename:
                _fail(where, f"duplicate enumerator '{ename}'")
            if other.value == value:
                _fail(where, f"duplicate value {value} for '{ename}' and '{other.name}'")
        enumerators.append(Enumerator(ename, value))
    if not enumerators:
        _fail(where, "an enumeration needs at least one enumerator")
    return Enum(name, ns, unit, enumerators, body.get("doc"))


def resolve_type(model, spelling, context_ns, where):
    """The type that `spelling` names, seen from namespace `context_ns`."""
    if not isinstance(spelling, str):
        _fail(where, f"bad type '{spelling}'")
    spelling = ALIASES.get(spelling, spelling)
    candidates = [spelling]
    ns = context_ns
    while ns:
        candidates.insert(-1, f"{ns}::{spelling}")
        ns = ns.rpartition("::")[0]
    for candidate in candidates:
        if candidate in model.types:
            return model.types[candidate]
    _fail(where, f"unknown type '{spelling}'")


def _define_value(model, type_, body, where):
    strep = body.get("strep", "repr")
    if strep not in ("repr", "custom"):
        _fail(where, f"strep must be 'repr' or 'custom', not '{strep}'")
    type_.strep = strep
    traits = body.get("traits", []) or []
    for trait in traits:
        if trait not in TRAITS:
            _fail(where, f"unknown trait '{trait}' (known: {', '.join(sorted(TRAITS))})")
    type_.traits = set(traits)
    # hash-custom: hash() is declared here and written by hand in the unit's .cpp.
    type_.custom_hash = "hash-custom" in type_.traits
    # hash-memo: the generated hash(), remembering the thread's last key.
    type_.hash_memo = "hash-memo" in type_.traits
    if type_.hash_memo and type_.custom_hash:
        _fail(where, "hash-memo and hash-custom do not go together: a hand-written hash keeps its own")
    type_.has_hash = "hash" in type_.traits or type_.custom_hash or type_.hash_memo
    type_.has_less = "less" in type_.traits
    type_.methods = list(body.get("methods", []) or [])
    # Constants first, so that a default or a bound may name one declared later.
    pending = []
    for raw in body["attrs"] or []:
        name, awhere = _new_attr_name(type_, raw, where, ATTR_KEYS, ("name", "type"))
        attr = Attr(name, resolve_type(model, raw["type"], type_.ns, awhere), raw.get("doc"))
        if "const" in raw:
            if "default" in raw or "range" in raw:
                _fail(awhere, "a constant takes neither 'default' nor 'range'")
            attr.const = _literal(attr, raw["const"], awhere)
        type_.attrs.append(attr)
        pending.append((attr, raw, awhere))
    for attr, raw, awhere in pending:
        if "default" in raw:
            attr.default = _initialiser(type_, attr, raw["default"], awhere)
        if "range" in raw:
            _set_range(model, type_, attr, raw["range"], awhere)
        if "view" in raw or raw.get("derived"):
            if set(raw) & {"const", "default", "range"}:
                _fail(awhere, "a derived attribute takes no 'const', 'default' or 'range'")
            if "view" in raw:
                attr.view = _view(type_, attr, raw["view"], awhere)
            else:
                attr.hand = True


def _view(type_, attr, raw, where):
    """{of: stored, bit: n} or {of: stored, bits: [lo, hi]} for integer and bool
    views; {of: stored, fallback: enumerator} for an enumeration."""
    _check_keys(where, raw, {"of", "bit", "bits", "fallback"}, ("of",))
    of = next((a for a in type_.attrs if a.name == raw["of"] and not a.is_derived
               and not a.is_const), None)
    if of is None:
        _fail(where, f"'{raw['of']}' is not a stored attribute")
    flag_set = of.type.category == "value" and [f.type.name for f in of.type.fields] == ["Lumo::NetU8"]
    if of.type.category != "int" and of.type.name != "Lumo::NetU8" and not flag_set:
        _fail(where, "a view reads an unsigned integer, a Lumo::NetU8 or a flag set")
    if attr.type.category == "enum":
        fallback = raw.get("fallback")
        if not any(e.name == fallback for e in attr.type.enumerators):
            _fail(where, f"an enumeration view needs a 'fallback' enumerator of {attr.type.name}")
        return View(of, fallback=fallback)
    if "bit" in raw:
        lo = hi = raw["bit"]
    elif "bits" in raw and isinstance(raw["bits"], list) and len(raw["bits"]) == 2:
        lo, hi = raw["bits"]
    else:
        _fail(where, "a bit view needs 'bit' or 'bits: [lo, hi]'")
    width = of.type.bits if of.type.category == "int" else 8
    if not (isinstance(lo, int) and isinstance(hi, int) and 0 <= lo <= hi < width):
        _fail(where, f"bits {lo} to {hi} do not fit in {of.type.name}")
    if attr.type.category == "bool" and lo != hi:
        _fail(where, "a bool view reads one bit")
    if attr.type.category not in ("bool", "int"):
        _fail(where, f"a bit view is a bool or an integer, not {attr.type.name}")
    return View(of, lo, hi)


def _literal(attr, value, where):
    """The C++ spelling of a literal of the attribute's type."""
    category = attr.type.category
    if category == "int" and isinstance(value, int) and not isinstance(value, bool):
        bits, signed = attr.type.bits, attr.type.signed
        low, high = (-(2 ** (bits - 1)), 2 ** (bits - 1) - 1) if signed else (0, 2**bits - 1)
        if not low <= value <= high:
            _fail(where, f"{value} does not fit in {attr.type.name}")
        return f"{value}" if signed or bits < 64 else f"{value}ull"
    if category == "bool" and isinstance(value, bool):
        return "true" if value else "false"
    if category == "float" and isinstance(value, (int, float)) and not isinstance(value, bool):
        return repr(float(value))
    if category == "string" and isinstance(value, str):
        return '"' + value.replace("\\", "\\\\").replace('"', '\\"') + '"'
    if category == "enum" and isinstance(value, str):
        if not any(e.name == value for e in attr.type.enumerators):
            _fail(where, f"'{value}' is not an enumerator of {attr.type.name}")
        return f"{attr.type.ns}::{value}"
    _fail(where, f"'{value}' is not a literal of type {attr.type.name}")


def _initialiser(type_, attr, value, where):
    if isinstance(value, dict):
        _check_keys(where, value, {"cpp"}, ("cpp",))
        return value["cpp"]
    if isinstance(value, str) and attr.type.category != "string":
        own = _own_constant(type_, value)
        if own is not None:
            return f"{own.name}()"
    return _literal(attr, value, where)


def _own_constant(type_, name):
    for a in type_.attrs:
        if a.name == name and getattr(a, "is_const", False):
            return a
    return None


def _set_range(model, type_, attr, bounds, where):
    if attr.type.category != "int":
        _fail(where, "only integer attributes take a range")
    if not isinstance(bounds, list) or len(bounds) != 2:
        _fail(where, "a range is [min, max]")
    attr.min, attr.max = (_bound(model, type_, attr, b, where) for b in bounds)


def _bound(model, type_, attr, bound, where):
    """A bound is a number, a constant of this type (written as
    Type::constant in error texts) or a qualified constant of another type
    (written as given)."""
    if isinstance(bound, int) and not isinstance(bound, bool):
        return Bound(_literal(attr, bound, where), str(bound), bound)
    if isinstance(bound, str):
        own = _own_constant(type_, bound)
        if own is not None:
            return Bound(f"{own.name}()", f"{type_.short}::{bound}")
        owner, _, const = bound.rpartition("::")
        other = model.types.get(owner)
        if isinstance(other, ValueType) and any(a.name == const and a.is_const for a in other.attrs):
            result = Bound(f"{owner}::{const}()", bound)
            result.owner = other
            return result
    _fail(where, f"bad bound '{bound}': a number or a constant of a value type")


def _new_attr_name(type_, raw, where, allowed, required):
    """The checked name of an attribute about to be added to `type_`, and
    where it is for messages. Names are unique along a chain of bases."""
    _check_keys(where, raw, allowed, required)
    name = raw["name"]
    if not isinstance(name, str) or not IDENT.match(name):
        _fail(where, f"bad attribute name '{name}'")
    awhere = f"{where}.{name}"
    t = type_
    while t is not None:
        if any(a.name == name for a in t.attrs):
            _fail(awhere, "duplicate attribute" if t is type_ else f"already an attribute of {t.name}")
        t = getattr(t, "base", None)
    return name, awhere


def _define_entity_head(model, type_, body, where):
    if "base" in body:
        base = resolve_type(model, body["base"], type_.ns, where)
        if not isinstance(base, EntityType):
            _fail(where, f"base '{body['base']}' is not an entity")
        type_.base = base
    type_.named = bool(body.get("named", False))
    type_.methods = list(body.get("methods", []) or [])
    type_.members = list(body.get("members", []) or [])
    if "mixin" in body:
        mixin = body["mixin"]
        if not isinstance(mixin, str) or not mixin.strip():
            _fail(where, "a mixin is the C++ name of a hand-written class")
        type_.mixin = mixin.strip()
    if "key" in body:
        raw = body["key"]
        _check_keys(f"{where}.key", raw, {"name", "type", "doc"}, ("name", "type"))
        key = EntityAttr(raw["name"], "plain", raw.get("doc"))
        key.type = resolve_type(model, raw["type"], type_.ns, f"{where}.key")
        key.is_key = key.ctor = True
        key.owner = type_
        if type_.named:
            _fail(where, "a keyed entity takes its name from its key; drop 'named'")
        type_.key = key
        type_.attrs.append(key)


def _define_entity_attrs(model, type_, body, where):
    for raw in body.get("attrs", []) or []:
        name, awhere = _new_attr_name(type_, raw, where, ENTITY_ATTR_KEYS, ("name",))
        kind = raw.get("kind", "plain")
        if kind not in ATTR_KINDS:
            _fail(awhere, f"unknown kind '{kind}' (known: {', '.join(ATTR_KINDS)})")
        if "const" in raw:
            if kind != "plain" or set(raw) & {"default", "range", "ctor"}:
                _fail(awhere, "a constant is a plain value without 'default', 'range' or 'ctor'")
            kind = "constant"
        attr = EntityAttr(name, kind, raw.get("doc"))
        attr.owner = type_
        _define_entity_attr(model, type_, attr, raw, awhere)
        type_.attrs.append(attr)
    _bind_queue_metadata(type_, where)
    if "baseArgs" in body:
        if type_.base is None:
            _fail(where, "'baseArgs' without a base")
        given = body["baseArgs"] or []
        if isinstance(given, dict):
            # Some of the base's constructor arguments by name; the rest pass through.
            known = {a.name: a for a in type_.base.cons_params}
            for name, value in given.items():
                if name not in known:
                    _fail(where, f"the base takes no constructor argument '{name}'")
                type_.base_fixed[name] = _literal(known[name], value, where)
            return
        wanted = type_.base.all_ctor_attrs
        if len(given) != len(wanted):
            _fail(where, f"the base takes {len(wanted)} constructor arguments, not {len(given)}")
        type_.base_fixed = {a.name: _literal(a, v, where) for a, v in zip(wanted, given)}


def _bind_queue_metadata(type_, where):
    """A derived `<queue>Metadata` of type Kel::QueueMetadata is the record
    that the queue's generated getter answers; it needs no hand-written code."""
    queues = {a.name: a for a in type_.attrs if a.kind == "queue"}
    for attr in type_.attrs:
        if attr.kind != "derived" or attr.type.name != "Kel::QueueMetadata":
            continue
        queue = queues.get(attr.name[:-len("Metadata")]) if attr.name.endswith("Metadata") else None
        if queue is None or attr.param or attr.secret:
            _fail(f"{where}.{attr.name}",
                  "a derived Kel::QueueMetadata is named <queue>Metadata after a queue of this entity")
        attr.metadata_of = queue


def _define_entity_attr(model, type_, attr, raw, where):
    kind = attr.kind
    if kind == "hashed-set":
        if "type" in raw:
            _fail(where, "a hashed-set has a key and no type")
    elif "type" not in raw:
        _fail(where, "missing key 'type'")
    else:
        attr.type = resolve_type(model, raw["type"], type_.ns, where)
    keyed = kind in ("hashed-map", "hashed-set", "ordered-map")
    if keyed:
        if "key" not in raw:
            _fail(where, f"a {kind} needs a 'key'")
        attr.key = resolve_type(model, raw["key"], type_.ns, where)
        if attr.key.category == "entity":
            _fail(where, "a key must be a value, not an entity")
    elif "key" in raw:
        _fail(where, f"a {kind} attribute takes no 'key'")
    if kind in ("child", "ref") and attr.type.category != "entity":
        _fail(where, f"a {kind} attribute holds an entity, not {attr.type.name}")
    if raw.get("shared"):
        if kind not in ("hashed-map", "ordered-map") or attr.type.category != "entity":
            _fail(where, "only a map of entities can be 'shared'")
        attr.shared = True
    if "keyFrom" in raw:
        if kind not in ("hashed-map", "ordered-map") or (attr.of_entities and not attr.shared):
            _fail(where, "'keyFrom' belongs to a map of values or a shared map")
        element = attr.type
        field = raw["keyFrom"]
        source = ([element.key] if getattr(element, "key", None) else []) + list(element.attrs)
        found = [a for a in source if a.name == field]
        if not found:
            _fail(where, f"{element.name} has no attribute '{field}' to key by")
        if found[0].type is not attr.key:
            _fail(where, f"{element.name}.{field} is not a {attr.key.name}")
        attr.key_from = field
    if "container" in raw and kind == "plain":
        if raw["container"] != BOXED:
            _fail(where, f"a plain attribute's container can only be {BOXED}")
        if raw.get("ctor"):
            _fail(where, f"a constructor argument cannot be kept in a {BOXED}")
        attr.boxed = True
    elif "container" in raw:
        if kind != "ordered-map" or attr.key.name != "Lumo::IpGenPrefix":
            _fail(where, "'container' belongs to an ordered-map keyed by Lumo::IpGenPrefix, "
                         f"or is {BOXED} for a plain attribute")
        if raw["container"] not in TRIES:
            _fail(where, f"unknown container '{raw['container']}' (known: {', '.join(TRIES)})")
        attr.trie = raw["container"]
    if "param" in raw:
        if kind != "derived":
            _fail(where, "only a derived attribute takes a 'param'")
        attr.param = str(raw["param"])
    if raw.get("secret"):
        if kind != "derived":
            _fail(where, "only a derived attribute can be 'secret'")
        attr.secret = True
    if "id" in raw:
        log_id = raw["id"]
        if not isinstance(log_id, int) or isinstance(log_id, bool) or not 256 <= log_id < 2**31:
            _fail(where, "an attribute-log id is a number from 256 up")
        attr.log_id = log_id
    attr.logged = bool(raw.get("logged", True))
    if kind == "constant":
        attr.const = _literal(attr, raw["const"], where)
        return
    if kind in ("plain", "derived") and attr.type.category == "entity":
        _fail(where, f"an entity is held by a child, ref or collection attribute, not '{kind}'")
    if attr.key is not None and kind != "ordered-map" and not attr.key.has_hash:
        _fail(where, f"{attr.key.name} has no hash(), which a {kind} needs")
    if kind == "ordered-map" and not attr.key.has_less:
        _fail(where, f"{attr.key.name} has no operator<, which an ordered-map needs")
    if attr.owns_children and kind != "child":
        child = attr.type
        # A keyed child must be keyed by the collection's key; an unkeyed one
        # is only named after it.
        if child.key is not None and child.key.type is not attr.key:
            _fail(where, f"{child.name} must be keyed by {attr.key.name} to live in this collection")
    if raw.get("ctor"):
        if kind != "plain":
            _fail(where, "only plain attributes can be constructor arguments")
        attr.ctor = True
    if "default" in raw:
        if kind != "plain":
            _fail(where, "only plain attributes take a default")
        attr.default = _initialiser(type_, attr, raw["default"], where)
    if "range" in raw:
        if kind != "plain":
            _fail(where, "only plain attributes take a range")
        _set_range(model, type_, attr, raw["range"], where)


def _check_log_ids(unit):
    """Attribute-log identifiers are unique along a chain of bases."""
    for type_ in unit.types:
        if type_.kind != "entity":
            continue
        seen = {}
        for owner, index, attr in type_.chain_attrs:
            log_id = attr.log_id_or(index)
            if log_id and log_id in seen:
                _fail(f"{unit.path}: {type_.name}.{attr.name}",
                      f"attribute-log id {log_id} already used by {seen[log_id]}")
            seen[log_id] = attr.name


def _check_unit(unit):
    for type_ in unit.values:
        where = f"{unit.path}: {type_.name}"
        for attr in type_.fields:
            kinds = attr.type
            if type_.has_hash and not kinds.has_hash:
                _fail(f"{where}.{attr.name}", f"{kinds.name} has no hash(), which {type_.short} needs")
            if type_.has_less and not kinds.has_less:
                _fail(f"{where}.{attr.name}", f"{kinds.name} has no operator<, which {type_.short} needs")


def _unit_includes(unit):
    """Headers that the unit's header needs for the types its attributes use."""
    includes = set()
    for type_ in unit.types:
        if type_.kind == "entity":
            includes.update(("Kel/Entity.h", "Kel/Exception.h"))
            if type_.base is not None:
                includes.add(type_.base.include)
        for attr in getattr(type_, "attrs", []):
            used = [attr.type, getattr(attr, "key", None)] + [b.owner for b in (attr.min, attr.max) if b and b.owner]
            includes.update(t.include for t in used if t and t.include)
            kind = getattr(attr, "kind", "plain")
            if kind in ("hashed-map", "hashed-set"):
                includes.add("Kel/HashTable.h")
            elif kind == "ordered-map":
                # The log's dirty keys of any ordered-map are an OrderedMap.
                includes.add("Kel/OrderedMap.h")
                if attr.trie:
                    includes.add("Lumo/IpTrie.h")
            elif kind == "queue":
                includes.update(("Kel/Queue.h", "Kel/QueueMetadata.h"))
            if getattr(attr, "boxed", False):
                includes.add("Kel/Boxed.h")
    includes.update(unit.extra_includes)
    includes.discard(f"Rsvp/{unit.name}.h")
    return sorted(includes)

"""The typed model: the types that attributes can have, and the model's own
value types and enumerations. Templates only read these objects."""


class Type:
    """Anything an attribute can hold.

    name      canonical schema spelling ("U32", "Lumo::IpGenAddr",
              "Rsvp::RsvpSpId"); also the type name that reflection shows
    cpp       C++ spelling
    ns        namespace whose appendStrep/sequenceToValue serve the type
    category  int, bool, float, string, enum, lumo or value; "lumo" is any
              hand-written runtime value type: the network types and the
              platform seams, each with its descriptor `<ns>::type<Name>`
    """

    def __init__(self, name, cpp, ns, category, include=None, bits=0,
                 signed=False, has_hash=True, has_less=True, log_ns=None):
        self.name = name
        self.cpp = cpp
        self.ns = ns
        self.category = category
        self.include = include
        self.bits = bits
        self.signed = signed
        self.has_hash = has_hash
        self.has_less = has_less
        self.own_log_ns = log_ns

    @property
    def short(self):
        return self.name.split("::")[-1]

    @property
    def log_ns(self):
        """Namespace of the type's attribute-log codec (kelLogWrite, kelLogRead)."""
        if self.own_log_ns:
            return self.own_log_ns
        return self.ns if self.category in ("value", "entity") else "Kel"

    @property
    def align(self):
        """The type's alignment in bytes, as far as the generator can tell: it
        orders data members so that they leave little padding. A wrong guess
        costs padding, never correctness."""
        if self.category in ("int", "float"):
            return self.bits // 8
        if self.category == "bool":
            return 1
        if self.category == "enum":
            return 4
        return _RUNTIME_ALIGN.get(self.name, 8)

    @property
    def to_strep(self):
        """The function that answers a value's text: the model's own, else
        Kel's, which finds the runtime types' appendStrep by argument."""
        return f"{self.ns}::valueToStrep" if self.category in ("value", "enum") else "Kel::valueToStrep"

    @property
    def desc(self):
        """The C++ object that describes the type for reflection."""
        if self.category == "lumo":
            return f"{self.ns}::type{self.short}"
        return "Kel::typeBool" if self.name == "bool" else f"Kel::type{self.short}"

    @property
    def by_value(self):
        """Whether parameters of this type are passed by value."""
        return self.category in ("int", "bool", "float", "enum")

    @property
    def param(self):
        return self.cpp if self.by_value else f"{self.cpp} const&"

    def hash_stmt(self, expr):
        """A statement that mixes `expr` into the accumulator `h`."""
        c = self.category
        if c == "int":
            unsigned = f"Kel::U{self.bits}"
            value = f"static_cast<{unsigned}>({expr})" if self.signed else expr
            return f"h.addU{self.bits}({value});"
        if c == "bool":
            return f"h.addBool({expr});"
        if c == "float":
            return f"h.addF{self.bits}({expr});"
        if c == "enum":
            return f"h.addU32(static_cast<Kel::U32>({expr}));"
        if c == "string":
            return f"h.addBytes({expr}.data(), {expr}.size());"
        return f"h.addU32({expr}.hash());"


def _builtin_types():
    out = []
    for bits in (8, 16, 32, 64):
        out.append(Type(f"U{bits}", f"Kel::U{bits}", "Kel", "int", bits=bits))
        out.append(Type(f"S{bits}", f"Kel::S{bits}", "Kel", "int", bits=bits, signed=True))
    out.append(Type("bool", "bool", "Kel", "bool"))
    out.append(Type("F32", "Kel::F32", "Kel", "float", bits=32))
    out.append(Type("F64", "Kel::F64", "Kel", "float", bits=64))
    out.append(Type("Kel::Seconds", "Kel::Seconds", "Kel", "float", bits=64))
    out.append(Type("Kel::String", "Kel::String", "Kel", "string"))
    out.append(Type("Kel::Name", "Kel::Name", "Kel", "string"))
    # A queue's bookkeeping record (head, next, count), which every queue
    # answers; declared as a derived attribute it is also reflected.
    out.append(Type("Kel::QueueMetadata", "Kel::QueueMetadata", "Kel", "lumo",
                    include="Kel/QueueMetadata.h"))
    # Bytes a value points at without owning them (a digest in a message).
    out.append(Type("Kel::BytePtr", "Kel::BytePtr", "Kel", "lumo", include="Kel/BytePtr.h"))
    for name in ("Ip6Addr", "IpGenAddr", "IpGenPrefix", "MplsLabel", "EthType", "IntfId", "NetU8"):
        out.append(Type(f"Lumo::{name}", f"Lumo::{name}", "Lumo", "lumo",
                        include=f"Lumo/{name}.h"))
    # The platform seams (runtime/<Namespace>/): value types that platform
    # libraries supply, written by hand like the network types.
    for ns, name, folder in (("Cspf", "PathKey", "Cspf"), ("Mpls", "LfibViaSetKey", "Mpls"),
                             ("TrafficEngineering", "BwPriority", "TrafficEngineering"),
                             ("Tunnel::TunnelTable", "TunnelId", "Tunnel")):
        out.append(Type(f"{ns}::{name}", f"{ns}::{name}", ns, "lumo",
                        include=f"{folder}/{name}.h"))
    # The deduplicated identifiers: hand-written over the generated
    # identifiers, with their own attribute-log codec.
    for name in ("RsvpSessionIdDeduped", "RsvpPathIdDeduped", "RsvpNeighborIdDeduped"):
        out.append(Type(f"Rsvp::{name}", f"Rsvp::{name}", "Rsvp", "lumo",
                        include="Rsvp/RsvpIdDeduped.h", log_ns="Rsvp"))
    return out


BUILTINS = {t.name: t for t in _builtin_types()}
# Alignments of the hand-written value types below eight bytes; any other
# runtime type is taken as eight.
_RUNTIME_ALIGN = {"Lumo::Ip6Addr": 1, "Lumo::IpGenAddr": 4, "Lumo::IpGenPrefix": 4,
                  "Lumo::MplsLabel": 4, "Lumo::EthType": 2, "Lumo::NetU8": 1,
                  "Kel::QueueMetadata": 4, "TrafficEngineering::BwPriority": 1,
                  "Cspf::PathKey": 4, "Tunnel::TunnelTable::TunnelId": 4}
# Shorter spellings accepted in schema files.
ALIASES = {"Seconds": "Kel::Seconds", "String": "Kel::String", "Name": "Kel::Name",
           "Kel::U8": "U8", "Kel::U16": "U16", "Kel::U32": "U32", "Kel::U64": "U64",
           "Kel::F32": "F32", "Kel::F64": "F64"}


class Enumerator:
    def __init__(self, name, value, doc=None):
        self.name = name
        self.value = value
        self.doc = doc


class Enum(Type):
    def __init__(self, name, ns, unit, enumerators, doc):
        super().__init__(name, name, ns, "enum", include=f"Rsvp/{unit.name}.h")
        self.unit = unit
        self.enumerators = enumerators
        self.doc = doc
        self.kind = "enum"

    @property
    def enum_desc(self):
        """Name of the function answering the enumeration's table."""
        return f"{self.short}Desc"

    @property
    def desc(self):
        return f"{self.ns}::{self.short}TypeDesc"


class Bound:
    """One end of an attribute's range: its C++ value and its text in the
    not-allowed error ("0", "RsvpPathId::invalidLspId")."""

    def __init__(self, cpp, text, value=None):
        self.cpp = cpp
        self.text = text
        self.value = value
        self.owner = None   # the value type whose constant this is, if another


class View:
    """A derived attribute's reading of a stored one: bits `lo` to `hi` of an
    integer (or of a network byte), or an enumeration decoded from a raw
    number with a fallback for numbers without an enumerator."""

    def __init__(self, of, lo=None, hi=None, fallback=None):
        self.of = of
        self.lo = lo
        self.hi = hi
        self.fallback = fallback

    @property
    def raw(self):
        """C++ expression of the stored integer, in a member function."""
        member = self.of.member
        if self.of.type.category == "lumo":
            return f"{member}.value()"
        if self.of.type.category == "value":  # a flag set: its network byte
            return f"{member}.value().value()"
        return member

    @property
    def mask(self):
        return hex(((1 << (self.hi - self.lo + 1)) - 1) << self.lo)

    @property
    def raw_cpp(self):
        """C++ type of the stored integer."""
        return self.of.type.cpp if self.of.type.category == "int" else "Kel::U8"


class Attr:
    def __init__(self, name, type_, doc=None):
        self.name = name
        self.type = type_
        self.doc = doc
        self.const = None      # C++ value of a constant attribute
        self.default = None    # C++ initialiser, None for the type's own default
        self.min = None        # Bound or None
        self.max = None
        self.view = None       # View of a derived attribute
        self.hand = False      # derived by a hand-written getter

    @property
    def is_const(self):
        return self.const is not None

    @property
    def is_derived(self):
        return self.view is not None or self.hand

    @property
    def checked(self):
        return self.min is not None or self.max is not None

    @property
    def default_init(self):
        """The member initialiser, or None for value-initialisation. An
        enumeration defaults to its first declared enumerator."""
        if self.default is not None:
            return self.default
        if self.type.category == "enum":
            return f"{self.type.ns}::{self.type.enumerators[0].name}"
        return None

    def range_test(self, v):
        """A C++ condition true when `v` is out of range. A lower bound of 0
        on an unsigned attribute is left out, as it cannot fail."""
        tests = []
        if self.min is not None and not (self.min.value == 0 and not self.type.signed):
            tests.append(f"{v} < {self.min.cpp}")
        if self.max is not None:
            tests.append(f"{v} > {self.max.cpp}")
        return " || ".join(tests) or "false"

    @property
    def member(self):
        return f"{self.name}_"

    @property
    def setter(self):
        return f"{self.name}Is"


class ValueType(Type):
    def __init__(self, name, ns, unit, doc):
        super().__init__(name, name, ns, "value", include=f"Rsvp/{unit.name}.h")
        self.unit = unit
        self.doc = doc
        self.kind = "value"
        self.attrs = []
        self.strep = "repr"
        self.traits = set()    # hash, less
        self.has_hash = False
        self.custom_hash = False  # hash() written by hand
        self.hash_memo = False  # hash() remembers the thread's last key
        self.has_less = False
        self.methods = []      # declarations of hand-written members

    @property
    def fields(self):
        """The stored attributes (constants and derived ones excluded), in
        declaration order."""
        return [a for a in self.attrs if not a.is_const and not a.is_derived]

    @property
    def constants(self):
        return [a for a in self.attrs if a.is_const]

    @property
    def stored(self):
        """The stored attributes in the order of their data members: widest
        alignment first, declaration order among equals, so that members
        leave little padding."""
        return sorted(self.fields, key=lambda a: -a.type.align)

    @property
    def align(self):
        return max((a.type.align for a in self.fields), default=1)

    @property
    def desc(self):
        return f"{self.cpp}::kelType"

    @property
    def indexed_attrs(self):
        """(index, attribute) in declaration order, from 2, constants included."""
        return list(enumerate(self.attrs, start=2))

    @property
    def repr_prefix(self):
        return f"Value('{self.name}', ** {{"


class Unit:
    def __init__(self, name, path, subsystem, doc):
        self.name = name
        self.path = path
        self.subsystem = subsystem
        self.doc = doc
        self.types = []
        self.includes = []     # headers of other units and of the runtime
        self.imported = False  # generated elsewhere; only its types are used
        self.extra_includes = []  # headers the hand-written declarations need

    @property
    def enums(self):
        return [t for t in self.types if t.kind == "enum"]

    @property
    def values(self):
        return [t for t in self.types if t.kind == "value"]


class Model:
    def __init__(self):
        self.units = []
        self.types = dict(BUILTINS)


COLLECTION_KINDS = ("hashed-map", "hashed-set", "ordered-map", "queue")
ATTR_KINDS = ("plain", "derived", "child", "ref") + COLLECTION_KINDS
# A constant is declared with `const:`, not with `kind:`.


class EntityAttr:
    """An attribute of an entity: a plain value, a child slot, a reference to
    a constant entity or a collection."""

    def __init__(self, name, kind, doc=None):
        self.name = name
        self.kind = kind
        self.doc = doc
        self.type = None      # the value or element type
        self.key = None       # key type of a map or set
        self.ctor = False     # fixed at construction (a constructor argument)
        self.is_key = False   # the entity's own key
        self.default = None
        self.min = None
        self.max = None
        self.owner = None     # the entity declaring the attribute
        self.const = None     # the C++ value of a constant
        self.log_id = None    # declared attribute-log identifier
        self.logged = True
        self.shared = False   # a map of pointers to constant entities, not owned
        self.key_from = None  # the element's attribute that gives its key
        self.param = None     # the parameter of a derived attribute, as C++
        self.secret = False   # a derived attribute that reflection must not read
        self.metadata_of = None  # the queue whose record this derived attribute answers
        self.trie = None      # an ordered-map by prefix kept in this Lumo trie template
        self.boxed = False    # a plain value kept out of line (Kel::Boxed)

    def log_id_or(self, index):
        """The attribute-log identifier: declared, else the index; 0 when the
        log does not carry the attribute."""
        if not self.logged or self.kind in ("constant", "derived"):
            return 0
        return self.log_id if self.log_id is not None else index

    @property
    def is_const(self):
        return self.kind == "constant"

    @property
    def class_default(self):
        """A constructor argument with a default: the class's constructor
        takes it so that a subclass may fix it; factories, owners and
        reflection make the class itself with the default."""
        return self.ctor and not self.is_key and self.default is not None

    # Names of the generated members.
    @property
    def member(self):
        return f"{self.name}_"

    @property
    def cap(self):
        return self.name[0].upper() + self.name[1:]

    @property
    def setter(self):
        return f"{self.name}Is"

    @property
    def checked(self):
        return self.min is not None or self.max is not None

    def range_test(self, v):
        return Attr.range_test(self, v)

    @property
    def default_init(self):
        return Attr.default_init.fget(self)

    @property
    def is_collection(self):
        return self.kind in COLLECTION_KINDS

    @property
    def typed_log(self):
        """Whether the state adapter writes and reads this attribute itself:
        plain values and collections of values (not queues, which the
        reader must renumber)."""
        if self.kind == "plain":
            return not self.ctor
        return self.kind in ("hashed-map", "hashed-set", "ordered-map", "queue") and not self.of_entities

    @property
    def typed_announce(self):
        """Whether the state adapter writes this attribute when the readers
        make its entity anew: the plain values it writes, boxed ones aside
        (every such value raises notifications, so the adapter has it)."""
        return self.kind == "plain" and self.logged and self.typed_log and not self.boxed

    @property
    def dirty_map(self):
        """The typed map of dirty keys of a collection of values."""
        if self.kind in ("hashed-map", "hashed-set"):
            return f"Kel::HashTable<{self.key_cpp}, bool>"
        return f"Kel::OrderedMap<{self.key_cpp}, bool>"

    @property
    def attr_kind(self):
        """The Kel::AttrKind enumerator."""
        if self.kind == "plain":
            return "fixed" if self.ctor else "plain"
        return {"hashed-map": "hashedMap", "hashed-set": "hashedSet",
                "ordered-map": "orderedMap"}.get(self.kind, self.kind)

    @property
    def type_name(self):
        """The type name that reflection shows for the attribute."""
        return (self.key if self.kind == "hashed-set" else self.type).name

    @property
    def elem_desc(self):
        return "&Kel::typeBool" if self.kind == "hashed-set" else f"&{self.type.desc}"

    @property
    def key_desc(self):
        if self.kind == "queue":
            return "&Kel::typeU32"
        return f"&{self.key.desc}" if self.key is not None else "nullptr"

    @property
    def of_entities(self):
        return self.type is not None and self.type.category == "entity"

    @property
    def align(self):
        """The alignment of the data member: a plain value's own, a pointer's
        or a container's eight."""
        if self.kind == "plain" and not self.boxed:
            return self.type.align
        return 8

    @property
    def owns_children(self):
        """Whether the attribute holds child entities whose parent it sets."""
        return self.of_entities and self.kind in ("child", "hashed-map", "ordered-map") and not self.shared

    @property
    def child_params(self):
        """Constructor parameters of a child entity besides its key."""
        return [p for p in self.type.ctor_params if not p.is_key]

    @property
    def element(self):
        """C++ type of what the collection or slot stores."""
        if self.kind == "hashed-set":
            return "Kel::NoValue"
        if self.of_entities:
            const = " const" if self.kind in ("queue", "ref") or self.shared else ""
            return f"Kel::Ptr<{self.type.cpp}{const}>"
        return self.type.cpp

    @property
    def element_param(self):
        if self.of_entities:
            return f"{self.element} const&"
        return self.type.param

    @property
    def key_cpp(self):
        return "Kel::U32" if self.kind == "queue" else self.key.cpp

    @property
    def key_param(self):
        return "Kel::U32" if self.kind == "queue" else self.key.param

    @property
    def key_in_entity(self):
        """A hashed map of owned entities under their own key, which they hold
        by reference: its table reads the key from the entity (kelKey())
        instead of keeping a copy in every node."""
        return (self.kind == "hashed-map" and self.of_entities and not self.shared
                and self.key_from is None and self.type.key is not None
                and self.type.key.type.cpp == self.key.cpp and not self.key.by_value)

    @property
    def container(self):
        if self.key_in_entity:
            return f"Kel::HashTable<{self.key.cpp}, {self.element}, Kel::KeyOfEntity>"
        if self.kind in ("hashed-map", "hashed-set"):
            return f"Kel::HashTable<{self.key.cpp}, {self.element}>"
        if self.kind == "ordered-map":
            if self.trie:
                return f"{self.trie}<{self.element}>"
            return f"Kel::OrderedMap<{self.key.cpp}, {self.element}>"
        if self.kind == "queue":
            return f"Kel::Queue<{self.element}>"
        if self.kind in ("child", "ref"):
            return self.element
        if self.boxed:
            return f"Kel::Boxed<{self.type.cpp}>"
        return self.type.cpp


class EntityType(Type):
    def __init__(self, name, ns, unit, doc):
        super().__init__(name, name, ns, "entity", include=f"Rsvp/{unit.name}.h",
                         has_hash=False, has_less=False)
        self.unit = unit
        self.doc = doc
        self.kind = "entity"
        self.base = None
        self.base_fixed = {}  # base constructor argument name -> C++ value fixed by this class
        self.named = False    # whether factories take a name
        self.key = None       # the EntityAttr holding the key, if keyed
        self.attrs = []       # own attributes, declaration order
        self.methods = []
        self.members = []     # hand-written private data members
        self.mixin = None     # a hand-written class (template) also derived from, after the base
        self.subtypes = []    # entity types deriving from this one, directly or not

    @property
    def depth(self):
        return 0 if self.base is None else self.base.depth + 1

    @property
    def desc(self):
        return f"{self.cpp}::kelType"

    @property
    def first_index(self):
        """Reflection index of the first own attribute: 258, after the base's."""
        return 258 if self.base is None else self.base.first_index + len(self.base.attrs)

    @property
    def indexed_attrs(self):
        return list(enumerate(self.attrs, start=self.first_index))

    @property
    def own_log_ids(self):
        """(log id, attribute) of this class's own logged attributes."""
        return [(a.log_id_or(i), a) for i, a in self.indexed_attrs if a.log_id_or(i)]

    @property
    def log_chain(self):
        """(owner, log id, attribute) of every logged, notified attribute of
        the chain."""
        return [(o, a.log_id_or(i), a) for o, i, a in self.chain_attrs
                if a in o.notified and a.log_id_or(i)]

    @property
    def chain_attrs(self):
        """(owner, index, attribute) of every attribute, the bases' first."""
        inherited = [] if self.base is None else self.base.chain_attrs
        return inherited + [(self, i, a) for i, a in self.indexed_attrs]

    @property
    def ctor_attrs(self):
        """Own attributes fixed at construction, the key excluded."""
        return [a for a in self.attrs if a.ctor and not a.is_key]

    @property
    def inherited_params(self):
        """Constructor parameters passed through to the base."""
        if self.base is None:
            return []
        return [p for p in self.base.cons_params if p.name not in self.base_fixed]

    @property
    def cons_params(self):
        """The C++ constructor's parameters after the name: the base's not
        fixed by this class, the key, then the attributes fixed at
        construction."""
        own = ([self.key] if self.key else []) + self.ctor_attrs
        return self.inherited_params + own

    @property
    def ctor_params(self):
        """What factories, owners and reflection give: the constructor's
        parameters without those that take their default."""
        return [p for p in self.cons_params if not p.class_default]

    @property
    def base_call_args(self):
        """The arguments after the name passed to the base's constructor."""
        return [self.base_fixed.get(p.name, f"_{p.name}") for p in self.base.cons_params]

    @property
    def cons_args(self):
        """The arguments after the name that kelNew passes to the
        constructor: its parameters, or the defaults."""
        return [p.default if p.class_default else f"_{p.name}" for p in self.cons_params]

    @property
    def all_ctor_attrs(self):
        return self.ctor_params

    @property
    def stored(self):
        """The attributes with a data member, in the order of the members:
        widest alignment first, declaration order among equals, so that
        members leave little padding."""
        return sorted((a for a in self.attrs if a.kind not in ("derived", "constant")),
                      key=lambda a: -a.align)

    @property
    def children(self):
        """Attributes whose entities this one owns (their parent is this)."""
        return [a for a in self.attrs if a.owns_children]

    @property
    def notified(self):
        """Attributes that raise notifications."""
        return [a for a in self.attrs if a.kind not in ("derived", "constant") and not a.ctor]

    @property
    def factory(self):
        return self.short[0].lower() + self.short[1:] + "Factory"

    def index_of(self, attr):
        """Reflection index of one of this chain's attributes."""
        owner = attr.owner
        return owner.first_index + owner.attrs.index(attr)

    @property
    def ctor_indices(self):
        return [self.index_of(p) for p in self.ctor_params]

    @property
    def root_base(self):
        return self if self.base is None else self.base.root_base

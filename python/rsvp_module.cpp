// The Python module `rsvp`: every type of the model reached through the
// library's reflection (Kel::TypeDesc and the generic operation), so that no
// type needs code of its own here. docs/PYTHON.md describes the surface.
//
// Lifetimes: a Python Entity holds a Kel::Ptr, so the entity lives while
// Python refers to it; a Value owns a copy. Every call into the library runs
// with the GIL held (the library's entities belong to one thread, and the
// GIL makes the interpreter that thread); only a replica's wait for bytes
// lets it go.
#include <Kel/Browser.h>
#include <Kel/Entity.h>
#include <Kel/Exception.h>
#include <Kel/LogSocket.h>
#include <Kel/RangeException.h>
#include <Kel/ReadOnlyProxy.h>
#include <Kel/Reflect.h>
#include <Kel/Text.h>
#include <Lumo/TypeDescs.h>
#include <Rsvp/Rsvp.h>

#include <pybind11/pybind11.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <poll.h>

namespace py = pybind11;

namespace rsvp_python {

using Kel::AttrKind;
using Kel::Entity;
using Kel::GenericValue;
using Kel::KelAttr;
using Kel::Ptr;
using Kel::String;
using Kel::TypeDesc;
using Kel::TypeKind;
using Kel::U32;

namespace {

// The module's exception classes, made once at import and kept for the
// life of the process.
PyObject* errorClass = nullptr;
PyObject* rangeErrorClass = nullptr;
PyObject* unknownAttributeClass = nullptr;
PyObject* readOnlyClass = nullptr;

// A name that the entity's type does not have: "No attribute '<attr>' in
// <Type>", the text of Kel::applyAssignment.
class UnknownAttribute : public Kel::Exception {
 public:
  using Kel::Exception::Exception;
};

// A Python value of a kind that the attribute cannot take.
class WrongType : public std::exception {
 public:
  explicit WrongType(std::string text) : text_(std::move(text)) {}
  [[nodiscard]] char const* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

struct PyEntity {
  Ptr<Entity> e;
  // Reached from a replica, or held without being owned (references,
  // shared maps): every change raises the read-only proxy's error.
  bool readOnly = false;

  // A frozen entity stops the program when changed: refused here instead.
  [[nodiscard]] bool refusesChanges() const noexcept { return readOnly || e->frozen(); }
};

struct PyValue {
  std::shared_ptr<GenericValue> v;
};

PyEntity wrap(Entity const* e, bool readOnly) {
  return PyEntity{Kel::ptrConstCast(Ptr<Entity const>(e)), readOnly};
}

py::object wrapOrNone(Ptr<Entity const> const& e, bool readOnly) {
  if (!e) return py::none();
  return py::cast(wrap(e.get(), readOnly));
}

bool isEntityType(TypeDesc const* t) { return t && t->kind() == TypeKind::entity; }

bool isStringType(TypeDesc const* t) { return t == &Kel::typeString || t == &Kel::typeName; }

bool isIntegerType(TypeDesc const* t) {
  return t == &Kel::typeU8 || t == &Kel::typeU16 || t == &Kel::typeU32 || t == &Kel::typeU64 ||
         t == &Kel::typeS8 || t == &Kel::typeS16 || t == &Kel::typeS32 || t == &Kel::typeS64;
}

bool isFloatType(TypeDesc const* t) {
  return t == &Kel::typeF32 || t == &Kel::typeF64 || t == &Kel::typeSeconds;
}

TypeDesc const& typeNamed(std::string_view name) {
  if (TypeDesc const* t = Rsvp::typeByName(name)) return *t;
  for (TypeDesc const* t : Rsvp::basicTypes()) {
    if (t->name() == name) return *t;
  }
  throw Kel::Exception("No type '" + Kel::excerpt(name) + "'");
}

// The type among `t` and its bases that declares `a`: errors name it, as
// the library's do.
std::string_view declaringType(TypeDesc const& t, KelAttr const& a) {
  for (TypeDesc const* d = &t; d != nullptr; d = d->base()) {
    auto const own = d->attrs();
    if (!own.empty() && &a >= own.data() && &a < own.data() + own.size()) return d->name();
  }
  return t.name();
}

String qualified(Entity const& e, KelAttr const& a) {
  return String(declaringType(e.fwkType(), a)) + "::" + String(a.name);
}

KelAttr const& attrOf(Entity const& e, std::string_view name) {
  TypeDesc const& type = e.fwkType();
  KelAttr const* a = type.attr(name);
  if (!a) {
    throw UnknownAttribute("No attribute '" + Kel::excerpt(name) + "' in " + String(type.name()));
  }
  return *a;
}

// Runs a generic operation: through Kel::ReadOnlyProxy for a read-only
// entity, so that a change raises its error and changes nothing.
int op(PyEntity const& pe, KelAttr const* a, U32 code, void* result, void const* arg1 = nullptr,
       void const* arg2 = nullptr) {
  if (pe.refusesChanges())
    return Kel::ReadOnlyProxy(*pe.e).attributeOp(result, a, code, arg1, arg2);
  return pe.e->fwkType().attributeOp(result, pe.e.get(), a, code, arg1, arg2);
}

void refuseIfReadOnly(PyEntity const& pe, KelAttr const& a) {
  if (pe.refusesChanges()) throw Kel::ReadOnlyProxyException(pe.e->fwkType().name(), a.name);
}

py::object pyString(std::string const& s) {
  // Bytes that are not UTF-8 come back as surrogates, as os.fsdecode does,
  // rather than failing the read.
  PyObject* o =
      PyUnicode_DecodeUTF8(s.data(), static_cast<Py_ssize_t>(s.size()), "surrogateescape");
  if (!o) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(o);
}

// A value of type `t` at `v` as Python sees it: the basic types as int,
// bool, float and str, any other as an rsvp.Value holding a copy. A null
// `t` is a queue's sequence number.
py::object toPython(TypeDesc const* t, void const* v) {
  if (!t || t == &Kel::typeU32) return py::int_(*static_cast<U32 const*>(v));
  if (t == &Kel::typeBool) return py::bool_(*static_cast<bool const*>(v));
  if (t == &Kel::typeU8) return py::int_(*static_cast<Kel::U8 const*>(v));
  if (t == &Kel::typeU16) return py::int_(*static_cast<Kel::U16 const*>(v));
  if (t == &Kel::typeU64) return py::int_(*static_cast<Kel::U64 const*>(v));
  if (t == &Kel::typeS8) return py::int_(*static_cast<Kel::S8 const*>(v));
  if (t == &Kel::typeS16) return py::int_(*static_cast<Kel::S16 const*>(v));
  if (t == &Kel::typeS32) return py::int_(*static_cast<Kel::S32 const*>(v));
  if (t == &Kel::typeS64) return py::int_(*static_cast<Kel::S64 const*>(v));
  if (t == &Kel::typeF32) return py::float_(*static_cast<Kel::F32 const*>(v));
  if (t == &Kel::typeF64 || t == &Kel::typeSeconds)
    return py::float_(*static_cast<double const*>(v));
  if (isStringType(t)) return pyString(*static_cast<String const*>(v));
  auto copy = std::make_shared<GenericValue>(*t);
  t->ops()->assign(copy->get(), v);
  return py::cast(PyValue{std::move(copy)});
}

String typeText(py::handle x) { return py::str(py::type::of(x).attr("__name__")); }

// Stores Python value `x` into `out`, of type out.type(), for attribute
// `a` (named in the errors as `what`): an rsvp.Value of that very type; a
// str in the type's string form (for String and Name, the text itself); an
// int, bool or float where the type is of that kind. Integers go through the
// type's parser, so a number out of range raises the library's text.
void fromPython(GenericValue& out, std::string_view attrName, std::string const& what,
                py::handle x) {
  TypeDesc const& t = out.type();
  auto const wrong = [&]() -> WrongType {
    String given = typeText(x);
    if (py::isinstance<PyValue>(x)) given = String(x.cast<PyValue const&>().v->type().name());
    return WrongType(what + " takes " + String(t.name()) + ", not " + given);
  };
  if (py::isinstance<PyValue>(x)) {
    PyValue const& pv = x.cast<PyValue const&>();
    if (&pv.v->type() != &t) throw wrong();
    t.ops()->assign(out.get(), pv.v->get());
    return;
  }
  if (isStringType(&t)) {
    if (PyUnicode_Check(x.ptr())) {
      py::bytes const raw = py::reinterpret_steal<py::bytes>(
          PyUnicode_AsEncodedString(x.ptr(), "utf-8", "surrogateescape"));
      if (!raw) throw py::error_already_set();
      *static_cast<String*>(out.get()) = std::string(raw);
      return;
    }
    if (PyBytes_Check(x.ptr())) {
      *static_cast<String*>(out.get()) = x.cast<std::string>();
      return;
    }
    throw wrong();
  }
  if (PyBool_Check(x.ptr())) {
    if (&t != &Kel::typeBool) throw wrong();
    *static_cast<bool*>(out.get()) = x.ptr() == Py_True;
    return;
  }
  if (PyLong_Check(x.ptr())) {
    if (isIntegerType(&t)) {
      String const text = py::str(x);
      Kel::parseNamed(attrName, [&] { out.strepIs(text); });
      return;
    }
    if (!isFloatType(&t)) throw wrong();
  }
  if (PyFloat_Check(x.ptr()) || PyLong_Check(x.ptr())) {
    if (!isFloatType(&t)) throw wrong();
    double const d = x.cast<double>();
    if (&t == &Kel::typeF32) {
      *static_cast<Kel::F32*>(out.get()) = static_cast<Kel::F32>(d);
    } else {
      *static_cast<double*>(out.get()) = d;
    }
    return;
  }
  if (PyUnicode_Check(x.ptr())) {
    String const text = x.cast<std::string>();
    Kel::parseNamed(attrName, [&] { out.strepIs(text); });
    return;
  }
  throw wrong();
}

// The constructor arguments of an entity type from Python keywords, in the
// order the type takes them; any left out take their type's default. The
// key comes from `key` unless given by name; without `key` (a member added
// under its key) the key is not among them. An unknown keyword raises.
struct CtorArgs {
  CtorArgs(TypeDesc const& type, py::kwargs const& args, std::optional<std::string_view> key) {
    py::dict rest(args);
    for (U32 index : type.ctorAttrs()) {
      bool const isKey = index == type.keyAttr();
      if (isKey && !key) continue;
      KelAttr const& p = *type.attr(index);
      auto v = std::make_unique<GenericValue>(*p.type);
      py::str const name(std::string(p.name));
      if (rest.contains(name)) {
        fromPython(*v, p.name, "Attribute " + String(type.name()) + "::" + String(p.name),
                   rest[name]);
        PyDict_DelItem(rest.ptr(), name.ptr());
      } else if (isKey) {
        Kel::parseNamed(p.name, [&] { v->strepIs(*key); });
      }
      ptrs.push_back(v->get());
      values.push_back(std::move(v));
    }
    if (!rest.empty()) {
      String const extra = py::str(rest.begin()->first);
      throw UnknownAttribute("No constructor argument '" + Kel::excerpt(extra) + "' in " +
                             String(type.name()));
    }
  }
  std::vector<std::unique_ptr<GenericValue>> values;
  std::vector<void const*> ptrs;
};

// An entity given where an attribute holds entities of type `t`.
Ptr<Entity const> entityFromPython(TypeDesc const* t, std::string const& what, py::handle x) {
  if (x.is_none()) return {};
  if (!py::isinstance<PyEntity>(x)) {
    throw WrongType(what + " takes " + String(t ? t->name() : "an entity") + ", not " +
                    typeText(x));
  }
  Ptr<Entity> const& e = x.cast<PyEntity const&>().e;
  if (t && !e->fwkType().isA(*t)) {
    throw WrongType(what + " takes " + String(t->name()) + ", not " + String(e->fwkType().name()));
  }
  return e;
}

// The text of Python value `x` in an assignment: what the library's
// refusal quotes.
String assignmentText(py::handle x) {
  if (py::isinstance<PyValue>(x)) return x.cast<PyValue const&>().v->strep();
  return py::str(x);
}

// The library's refusal of an assignment form that the attribute does not
// take: Kel::applyAssignment raises it before it parses or changes anything,
// since the form given is never the one the attribute takes.
[[noreturn]] void refuseForm(PyEntity const& pe, std::string const& assignment) {
  Kel::applyAssignment(*pe.e, assignment);
  throw Kel::Exception("Cannot apply '" + Kel::excerpt(assignment) + "'");
}

// ---------------------------------------------------------------------------
// Collections

struct PyCollection {
  PyEntity owner;
  KelAttr const* a;

  [[nodiscard]] Entity& entity() const { return *owner.e; }
  [[nodiscard]] String what() const { return qualified(entity(), *a); }
  [[nodiscard]] String label() const { return "Attribute " + what(); }
  [[nodiscard]] TypeDesc const& keyType() const { return a->keyType ? *a->keyType : Kel::typeU32; }
  [[nodiscard]] bool ofEntities() const { return isEntityType(a->type); }
  [[nodiscard]] bool membersReadOnly() const { return owner.readOnly || Kel::holdsShared(*a); }

  [[nodiscard]] std::unique_ptr<GenericValue> key(py::handle k) const {
    auto out = std::make_unique<GenericValue>(keyType());
    fromPython(*out, a->name, label() + " key", k);
    return out;
  }

  [[nodiscard]] std::size_t size() const {
    std::size_t n = 0;
    if (op(owner, a, Kel::attrOpSize, &n) != Kel::attrDone)
      throw Kel::Exception("No size of " + what());
    return n;
  }

  // The members as (key, value) pairs, in the collection's order. Taken
  // whole before Python sees any, so that a change made while walking them
  // never meets a live iterator.
  [[nodiscard]] std::vector<std::pair<py::object, py::object>> members() const {
    std::unique_ptr<Kel::GenericIter> it;
    if (op(owner, a, Kel::attrOpIterate, &it) != Kel::attrDone || !it) {
      throw Kel::Exception("Cannot walk " + what());
    }
    std::vector<std::pair<py::object, py::object>> out;
    for (; !it->done(); it->next()) {
      py::object k = toPython(a->keyType, it->key());
      py::object v;
      if (Entity const* e = it->entity()) {
        v = py::cast(wrap(e, membersReadOnly()));
      } else if (a->kind == AttrKind::hashedSet) {
        v = py::bool_(true);
      } else if (ofEntities() || !it->element()) {
        v = py::none();
      } else {
        v = toPython(a->type, it->element());
      }
      out.emplace_back(std::move(k), std::move(v));
    }
    return out;
  }

  // The member under `k`; null when absent.
  [[nodiscard]] py::object find(py::handle k) const {
    auto const kv = key(k);
    if (a->kind == AttrKind::hashedSet) {
      bool present = false;
      op(owner, a, Kel::attrOpMemberRead, &present, kv->get());
      return present ? py::object(py::bool_(true)) : py::object();
    }
    if (ofEntities()) {
      Ptr<Entity const> e;
      if (op(owner, a, Kel::attrOpMemberRead, &e, kv->get()) != Kel::attrDone || !e) return {};
      return py::cast(wrap(e.get(), membersReadOnly()));
    }
    GenericValue v(*a->type);
    if (op(owner, a, Kel::attrOpMemberRead, v.get(), kv->get()) != Kel::attrDone) return {};
    return toPython(a->type, v.get());
  }

  [[nodiscard]] py::object get(py::handle k) const {
    py::object v = find(k);
    if (!v) throw py::key_error(key(k)->strep());
    return v;
  }

  // A set takes the key; a map of owned entities finds or makes the child,
  // its constructor arguments besides the key given by name (any left out
  // take their type's default value).
  py::object add(py::handle k, py::kwargs const& args) {
    refuseIfReadOnly(owner, *a);
    auto const kv = key(k);
    String const assignment = String(a->name) + "[" + kv->strep() + "]";
    if (a->kind == AttrKind::hashedSet) {
      if (!args.empty()) throw Kel::Exception(what() + " takes no constructor arguments");
      if (op(owner, a, Kel::attrOpMemberWrite, nullptr, kv->get()) != Kel::attrDone) {
        throw Kel::Exception("Cannot apply '" + Kel::excerpt(assignment) + "'");
      }
      return py::none();
    }
    bool const map = a->kind == AttrKind::hashedMap || a->kind == AttrKind::orderedMap;
    // Maps of values and queues take another form: the library refuses this one.
    if (!map || !ofEntities()) refuseForm(owner, assignment);
    if (Kel::holdsShared(*a)) {
      throw Kel::Exception("Cannot apply '" + Kel::excerpt(assignment) + "': " + what() +
                           " holds entities it does not own; store one with [key] = entity");
    }
    CtorArgs const ctor(*a->type, args, std::nullopt);
    Ptr<Entity const> made;
    if (op(owner, a, Kel::attrOpMemberWrite, &made, kv->get(),
           ctor.ptrs.empty() ? nullptr : ctor.ptrs.data()) != Kel::attrDone ||
        !made) {
      throw Kel::Exception("Cannot add " + kv->strep() + " to " + what());
    }
    return py::cast(wrap(made.get(), false));
  }

  void set(py::handle k, py::handle x) {
    refuseIfReadOnly(owner, *a);
    auto const kv = key(k);
    bool const map = a->kind == AttrKind::hashedMap || a->kind == AttrKind::orderedMap;
    if (map && Kel::holdsShared(*a)) {
      Ptr<Entity const> const e = entityFromPython(a->type, label(), x);
      if (!e || op(owner, a, Kel::attrOpMemberWrite, nullptr, kv->get(), &e) != Kel::attrDone) {
        throw WrongType(label() + " takes " + String(a->type->name()) + ", not " + typeText(x));
      }
      return;
    }
    if (!map || ofEntities())
      refuseForm(owner, String(a->name) + "[" + kv->strep() + "]=" + assignmentText(x));
    GenericValue v(*a->type);
    fromPython(v, a->name, label(), x);
    if (op(owner, a, Kel::attrOpMemberWrite, nullptr, kv->get(), v.get()) != Kel::attrDone) {
      throw Kel::Exception("Cannot store into " + what());
    }
  }

  U32 append(py::handle x) {
    refuseIfReadOnly(owner, *a);
    if (a->kind != AttrKind::queue) refuseForm(owner, String(a->name) + "+=" + assignmentText(x));
    U32 seq = 0;
    if (ofEntities()) {
      Ptr<Entity const> const e = entityFromPython(a->type, label(), x);
      if (!e || op(owner, a, Kel::attrOpEnq, &seq, &e) != Kel::attrDone) {
        throw WrongType(label() + " takes " + String(a->type->name()) + ", not " + typeText(x));
      }
      return seq;
    }
    GenericValue v(*a->type);
    fromPython(v, a->name, label(), x);
    if (op(owner, a, Kel::attrOpEnq, &seq, v.get()) != Kel::attrDone) {
      throw Kel::Exception("Cannot append to " + what());
    }
    return seq;
  }

  bool discard(py::handle k) {
    refuseIfReadOnly(owner, *a);
    auto const kv = key(k);
    bool was = false;
    if (op(owner, a, Kel::attrOpMemberDel, &was, kv->get()) != Kel::attrDone) {
      throw Kel::Exception("Cannot remove from " + what());
    }
    return was;
  }

  void clear() {
    refuseIfReadOnly(owner, *a);
    if (op(owner, a, Kel::attrOpDelAll, nullptr) != Kel::attrDone) {
      throw Kel::Exception("Cannot clear " + what());
    }
  }
};

// ---------------------------------------------------------------------------
// Entities

py::object getAttribute(PyEntity const& pe, std::string_view name) {
  KelAttr const& a = attrOf(*pe.e, name);
  if (Kel::isCollection(a.kind)) return py::cast(PyCollection{pe, &a});
  if (a.kind == AttrKind::child || a.kind == AttrKind::ref || isEntityType(a.type)) {
    Ptr<Entity const> e;
    op(pe, &a, Kel::attrOpRead, &e);
    return wrapOrNone(e, pe.readOnly || a.kind != AttrKind::child);
  }
  GenericValue v(*a.type);
  if (op(pe, &a, Kel::attrOpRead, v.get()) != Kel::attrDone) {
    throw Kel::Exception("Cannot read " + qualified(*pe.e, a));
  }
  return toPython(a.type, v.get());
}

void setAttribute(PyEntity const& pe, std::string_view name, py::handle x) {
  KelAttr const& a = attrOf(*pe.e, name);
  refuseIfReadOnly(pe, a);
  String const what = "Attribute " + qualified(*pe.e, a);
  if (a.kind == AttrKind::ref) {
    Ptr<Entity const> const e = entityFromPython(a.type, what, x);
    if (op(pe, &a, Kel::attrOpWrite, nullptr, &e) != Kel::attrDone) {
      throw WrongType(what + " takes " + String(a.type->name()) + ", not " + typeText(x));
    }
    return;
  }
  bool const writable =
      (a.kind == AttrKind::plain || a.kind == AttrKind::fixed) && a.type && a.type->ops();
  if (!writable) refuseForm(pe, String(a.name) + "=" + assignmentText(x));
  GenericValue v(*a.type);
  fromPython(v, a.name, what, x);
  if (op(pe, &a, Kel::attrOpWrite, nullptr, v.get()) != Kel::attrDone) {
    throw Kel::Exception("Cannot write " + qualified(*pe.e, a));
  }
}

// Forwards every change of one entity to a Python callable.
class Subscription final : public Kel::GenericNotifiee {
 public:
  Subscription(PyEntity const& pe, py::function callback)
      : entity_(pe), callback_(std::move(callback)) {
    notifiee_ = pe.e->fwkType().genericNotifiee(pe.e.get(), this);
  }

  void onAttribute(Entity const& entity, KelAttr const& attr, void const* key) override {
    py::gil_scoped_acquire const gil;
    // Locals only from here: the callback may drop the last reference to
    // this subscription.
    py::object const callback = callback_;
    bool const readOnly = entity_.readOnly;
    try {
      py::object k = py::none();
      if (key && Kel::isCollection(attr.kind)) k = toPython(attr.keyType, key);
      callback(wrap(&entity, readOnly), std::string(attr.name), k);
    } catch (py::error_already_set& e) {
      // A notification cannot fail the change that caused it; the error
      // goes where Python reports what it cannot raise.
      e.discard_as_unraisable("rsvp subscription callback");
    } catch (std::exception const& e) {
      PyErr_SetString(errorClass, e.what());
      PyErr_WriteUnraisable(callback.ptr());
    }
  }

  void cancel() { notifiee_.reset(); }
  [[nodiscard]] bool active() const { return notifiee_ && notifiee_->notifierBase(); }

 private:
  PyEntity entity_;
  py::function callback_;
  std::unique_ptr<Kel::NotifieeBase> notifiee_;
};

PyEntity make(std::string_view typeName, std::string_view nameOrKey, py::kwargs const& args) {
  TypeDesc const* type = Rsvp::typeByName(typeName);
  if (!type || type->kind() != TypeKind::entity) {
    throw Kel::Exception("No entity type '" + Kel::excerpt(typeName) + "'");
  }
  if (args.empty() && type->create()) return PyEntity{type->create()(nameOrKey), false};
  CtorArgs const ctor(*type, args, nameOrKey);
  PyEntity out{type->createWithArgs()(ctor.ptrs.data()), false};
  if (!type->keyAttr() && !nameOrKey.empty()) out.e->nameIsFromBackup(Kel::Name(nameOrKey));
  return out;
}

// ---------------------------------------------------------------------------
// Publishing and replicas over a Unix socket (Kel::LogPublisher,
// Kel::LogReplica)

// Waits up to `seconds` for `fd` to be readable, without the GIL, so that
// other Python threads run meanwhile. A negative wait has no limit.
bool awaitReadable(int fd, double seconds) {
  py::gil_scoped_release const released;
  int const ms = seconds < 0 ? -1 : static_cast<int>(seconds * 1000.0 + 0.5);
  pollfd p{fd, POLLIN, 0};
  int n;
  do {
    n = ::poll(&p, 1, ms);
  } while (n < 0 && errno == EINTR);
  return n > 0;
}

class Publisher {
 public:
  explicit Publisher(std::string path)
      : publisher_(std::make_unique<Kel::LogPublisher>(std::move(path))) {}

  void publish(U32 number, PyEntity const& root) {
    live().treeIs(number, *root.e);
    roots_.push_back(root.e);  // the publisher needs its trees to outlive it
  }
  void serve() { live().serve(); }
  // Seconds, as everywhere in the module; a patience that is negative, not a
  // number or over a day is refused before the publisher changes.
  void pace(std::size_t backlogBytes, double patience) {
    if (!(patience >= 0.0 && patience <= 86400.0)) {
      char text[64];
      std::snprintf(text, sizeof text, "Invalid patience %g s", patience);
      throw Kel::RangeException(text);
    }
    live().paceIs(backlogBytes,
                  std::chrono::milliseconds(static_cast<long>(patience * 1000.0 + 0.5)));
  }
  [[nodiscard]] int fd() { return live().fd(); }
  [[nodiscard]] std::size_t replicas() { return live().replicas(); }
  [[nodiscard]] bool pending() { return live().pending(); }
  [[nodiscard]] std::string path() { return live().path(); }
  void close() {
    publisher_.reset();
    roots_.clear();
  }

 private:
  Kel::LogPublisher& live() {
    if (!publisher_) throw Kel::Exception("Publisher is closed");
    return *publisher_;
  }

  std::vector<Ptr<Entity>> roots_;  // declared first: destroyed after the publisher
  std::unique_ptr<Kel::LogPublisher> publisher_;
};

class Replica {
 public:
  Replica(std::string path, std::string_view typeName, U32 tree)
      : root_(make(typeName, "", py::kwargs()).e),
        replica_(std::make_unique<Kel::LogReplica>(std::move(path))) {
    replica_->treeIs(tree, *root_);
  }

  [[nodiscard]] PyEntity root() const { return PyEntity{root_, true}; }

  // Takes in what arrives within `seconds`; answers whether anything did.
  bool read(double seconds) {
    Kel::LogReplica& r = live();
    if (!awaitReadable(r.fd(), seconds)) return false;
    return r.readAvailable();
  }

  // Reads until the snapshot of the tree is in, or `seconds` have passed.
  bool sync(double seconds) {
    using Clock = std::chrono::steady_clock;
    auto const deadline = Clock::now() + std::chrono::duration<double>(seconds);
    Kel::LogReplica& r = live();
    while (!r.inSync()) {
      double const left = std::chrono::duration<double>(deadline - Clock::now()).count();
      if (left <= 0) return false;
      if (awaitReadable(r.fd(), left)) r.readAvailable();
    }
    return true;
  }

  [[nodiscard]] bool inSync() { return live().inSync(); }
  [[nodiscard]] int fd() { return live().fd(); }
  void close() { replica_.reset(); }

 private:
  Kel::LogReplica& live() {
    if (!replica_) throw Kel::Exception("Replica is closed");
    return *replica_;
  }

  Ptr<Entity> root_;  // declared first: destroyed after the replica
  std::unique_ptr<Kel::LogReplica> replica_;
};

void translate(std::exception_ptr p) {
  try {
    if (p) std::rethrow_exception(p);
  } catch (Kel::RangeException const& e) {
    PyErr_SetString(rangeErrorClass, e.what());
  } catch (UnknownAttribute const& e) {
    PyErr_SetString(unknownAttributeClass, e.what());
  } catch (Kel::ReadOnlyProxyException const& e) {
    PyErr_SetString(readOnlyClass, e.what());
  } catch (Kel::Exception const& e) {
    PyErr_SetString(errorClass, e.what());
  } catch (WrongType const& e) {
    PyErr_SetString(PyExc_TypeError, e.what());
  }
}

PyObject* newException(py::module_& m, char const* name, py::handle bases, char const* doc) {
  std::string const full = std::string("rsvp.") + name;
  PyObject* cls = PyErr_NewExceptionWithDoc(full.c_str(), doc, bases.ptr(), nullptr);
  if (!cls) throw py::error_already_set();
  m.add_object(name, py::handle(cls));
  return cls;
}

}  // namespace

}  // namespace rsvp_python

PYBIND11_MODULE(rsvp, m) {
  using namespace rsvp_python;
  m.doc() = "The RSVP-TE model through the library's reflection";

  errorClass = newException(m, "Error", PyExc_Exception, "An error of the library.");
  rangeErrorClass = newException(
      m, "RangeError", py::make_tuple(py::handle(errorClass), py::handle(PyExc_ValueError)),
      "Text that does not parse, or a value out of range.");
  unknownAttributeClass =
      newException(m, "UnknownAttributeError",
                   py::make_tuple(py::handle(errorClass), py::handle(PyExc_AttributeError)),
                   "A name that the entity's type does not have.");
  readOnlyClass =
      newException(m, "ReadOnlyError", errorClass,
                   "A change asked of a replica or of an entity held without owning it.");
  py::register_exception_translator(&translate);

  m.def(
      "types",
      [] {
        py::list out;
        for (TypeDesc const* t : Rsvp::allTypes()) out.append(py::str(std::string(t->name())));
        return out;
      },
      "The qualified names of every type of the model.");

  m.def("make", &make, py::arg("type_name"), py::arg("name_or_key") = "",
        "A new parentless entity of the type, named (or keyed, from the key's text); constructor "
        "arguments by name.");

  py::class_<PyValue>(m, "Value", "A value of any type with value methods, kept by copy.")
      .def(py::init([](std::string_view typeName, std::string_view text) {
             auto v = std::make_shared<GenericValue>(typeNamed(typeName));
             v->strepIs(text);
             return PyValue{std::move(v)};
           }),
           py::arg("type_name"), py::arg("text"))
      .def_property_readonly("type",
                             [](PyValue const& v) { return std::string(v.v->type().name()); })
      .def("__str__", [](PyValue const& v) { return pyString(v.v->strep()); })
      .def("__repr__",
           [](PyValue const& v) {
             return "rsvp.Value(" +
                    std::string(py::repr(py::str(std::string(v.v->type().name())))) + ", " +
                    std::string(py::repr(pyString(v.v->strep()))) + ")";
           })
      .def("__eq__",
           [](PyValue const& a, py::object const& b) -> py::object {
             if (!py::isinstance<PyValue>(b))
               return py::reinterpret_borrow<py::object>(Py_NotImplemented);
             PyValue const& o = b.cast<PyValue const&>();
             return py::bool_(&a.v->type() == &o.v->type() &&
                              a.v->type().ops()->equal(a.v->get(), o.v->get()));
           })
      .def("__lt__",
           [](PyValue const& a, PyValue const& b) {
             auto const less = a.v->type().ops()->less;
             if (&a.v->type() != &b.v->type() || !less) {
               throw WrongType("No order between " + std::string(a.v->type().name()) + " and " +
                               std::string(b.v->type().name()));
             }
             return less(a.v->get(), b.v->get());
           })
      .def("__hash__", [](PyValue const& v) -> py::ssize_t {
        if (auto const h = v.v->type().ops()->hash) return h(v.v->get());
        return py::hash(py::str(v.v->strep()));
      });

  py::class_<PyCollection>(m, "Collection",
                           "A live view of one collection attribute, in the collection's order.")
      .def("__len__", &PyCollection::size)
      .def("__iter__",
           [](PyCollection const& c) {
             py::list keys;
             for (auto& [k, v] : c.members()) keys.append(k);
             return py::iter(keys);
           })
      .def("keys",
           [](PyCollection const& c) {
             py::list keys;
             for (auto& [k, v] : c.members()) keys.append(k);
             return keys;
           })
      .def("values",
           [](PyCollection const& c) {
             py::list values;
             for (auto& [k, v] : c.members()) values.append(v);
             return values;
           })
      .def("items",
           [](PyCollection const& c) {
             py::list items;
             for (auto& [k, v] : c.members()) items.append(py::make_tuple(k, v));
             return items;
           })
      .def("__contains__", [](PyCollection const& c, py::handle k) { return bool(c.find(k)); })
      .def("__getitem__", &PyCollection::get)
      .def(
          "get",
          [](PyCollection const& c, py::handle k, py::object const& dflt) {
            py::object v = c.find(k);
            return v ? v : dflt;
          },
          py::arg("key"), py::arg("default") = py::none())
      .def("__setitem__", &PyCollection::set)
      .def("__delitem__",
           [](PyCollection& c, py::handle k) {
             if (!c.discard(k)) throw py::key_error(c.key(k)->strep());
           })
      .def("add", &PyCollection::add, py::arg("key"))
      .def("append", &PyCollection::append)
      .def("discard", &PyCollection::discard)
      .def("clear", &PyCollection::clear)
      .def_property_readonly("name", [](PyCollection const& c) { return std::string(c.a->name); })
      .def("__repr__", [](PyCollection const& c) {
        return "<rsvp.Collection " + c.what() + " of " + std::to_string(c.size()) + ">";
      });

  py::class_<Subscription>(m, "Subscription", "Keeps a callback registered until cancelled.")
      .def("cancel", &Subscription::cancel)
      .def_property_readonly("active", &Subscription::active)
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](Subscription& s, py::args const&) { s.cancel(); });

  py::class_<PyEntity>(m, "Entity", "An entity of the model, reached by attribute name.")
      .def_property_readonly("type",
                             [](PyEntity const& e) { return std::string(e.e->fwkType().name()); })
      .def_property_readonly("name", [](PyEntity const& e) { return pyString(e.e->name()); })
      .def_property_readonly("full_name",
                             [](PyEntity const& e) { return pyString(e.e->fullName()); })
      .def_property_readonly(
          "parent", [](PyEntity const& e) { return wrapOrNone(e.e->parent(), e.readOnly); })
      .def_property_readonly("read_only", [](PyEntity const& e) { return e.refusesChanges(); })
      .def("attributes",
           [](PyEntity const& e) {
             py::list names;
             e.e->fwkType().forEachAttr(
                 [&](KelAttr const& a) { names.append(py::str(std::string(a.name))); });
             return names;
           })
      .def("__getitem__",
           [](PyEntity const& e, std::string_view name) { return getAttribute(e, name); })
      .def("get", [](PyEntity const& e, std::string_view name) { return getAttribute(e, name); })
      .def("__setitem__", &setAttribute)
      .def(
          "apply",
          [](PyEntity const& e, std::string_view text) {
            if (e.refusesChanges()) {
              Kel::TextIt it = text.data();
              std::string_view const name = Kel::readWord(it, it + text.size());
              refuseIfReadOnly(e, attrOf(*e.e, name));
            }
            try {
              Kel::applyAssignment(*e.e, text);
            } catch (Kel::Exception const& error) {
              // The same refusal as a read's, so one except clause catches both.
              if (std::string_view(error.what()).starts_with("No attribute '")) {
                throw UnknownAttribute(error.what());
              }
              throw;
            }
          },
          py::arg("assignment"))
      .def(
          "create",
          [](PyEntity const& e, std::string_view name) {
            KelAttr const& a = attrOf(*e.e, name);
            Ptr<Entity> child;
            if (a.kind != AttrKind::child ||
                op(e, &a, Kel::attrOpCreate, &child) != Kel::attrDone || !child) {
              throw Kel::Exception("Cannot create " + qualified(*e.e, a) +
                                   (a.kind == AttrKind::child ? " without constructor arguments"
                                                              : ": not a child slot"));
            }
            return PyEntity{child, false};
          },
          py::arg("attr"))
      .def(
          "subscribe",
          [](PyEntity const& e, py::function cb) {
            if (e.e->frozen())
              throw Kel::Exception("Entity " + e.e->fullName() +
                                   " is frozen and takes no subscription");
            return std::make_unique<Subscription>(e, std::move(cb));
          },
          py::arg("callback"))
      .def("browse", [](PyEntity const& e) { return pyString(Kel::browseText(*e.e)); })
      .def("__eq__",
           [](PyEntity const& a, py::object const& b) -> py::object {
             if (!py::isinstance<PyEntity>(b))
               return py::reinterpret_borrow<py::object>(Py_NotImplemented);
             return py::bool_(a.e.get() == b.cast<PyEntity const&>().e.get());
           })
      .def("__hash__", [](PyEntity const& e) { return std::hash<Entity const*>()(e.e.get()); })
      .def("__repr__", [](PyEntity const& e) {
        return "<rsvp.Entity " + std::string(e.e->fwkType().name()) + " '" + e.e->fullName() + "'>";
      });

  py::class_<Publisher>(m, "Publisher", "Serves entity trees to replicas on a Unix socket.")
      .def(py::init<std::string>(), py::arg("path"))
      .def("publish", &Publisher::publish, py::arg("number"), py::arg("root"))
      .def("serve", &Publisher::serve)
      .def("pace", &Publisher::pace, py::arg("backlog_bytes"), py::arg("patience"),
           "Paces the replicas that attach from now on: serving waits for a replica "
           "whose socket leaves more than backlog_bytes waiting, for at most patience "
           "seconds until it catches up. For replicas in other processes.")
      .def_property_readonly("fd", &Publisher::fd)
      .def_property_readonly("path", &Publisher::path)
      .def_property_readonly("replicas", &Publisher::replicas)
      .def_property_readonly("pending", &Publisher::pending)
      .def("close", &Publisher::close)
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](Publisher& p, py::args const&) { p.close(); });

  py::class_<Replica>(m, "Replica", "A read-only replica of a published tree.")
      .def(py::init<std::string, std::string_view, U32>(), py::arg("path"), py::arg("type_name"),
           py::arg("tree") = 1)
      .def_property_readonly("root", &Replica::root)
      .def("read", &Replica::read, py::arg("timeout") = 0.0)
      .def("sync", &Replica::sync, py::arg("timeout") = 5.0)
      .def_property_readonly("in_sync", &Replica::inSync)
      .def_property_readonly("fd", &Replica::fd)
      .def("close", &Replica::close)
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](Replica& r, py::args const&) { r.close(); });
}

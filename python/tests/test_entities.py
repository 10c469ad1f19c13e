"""Entities by attribute name: reads and writes, the error texts (table
driven), collections in the library's own order, and subscriptions."""
import sys

import pytest

import rsvp

SP = "<sessionId=<dstIp=10.0.0.{0}>_<tunnelId=7>_<extTunnelId=10.0.0.1>>_<pathId=<lspId={1}>>"


REQ_ID = "Value('Rsvp::RsvpTunnelRequestId', ** {'reqId': %d, 'reqSubId': 1})"


@pytest.fixture
def request_():
    return rsvp.make("Rsvp::RsvpCliTunnelRequest", REQ_ID % 4)


WRITES = [
    # attribute, value written, value read back
    ("version", 7, 7),
    ("version", "4294967295", 4294967295),
    ("localProtectionDesired", True, True),
    ("bandwidth", 1.5, 1.5),
    ("bandwidth", "2.5", 2.5),
    ("sessionName", "lsp \"one\"", "lsp \"one\""),
    ("srcIp", "10.0.0.1", rsvp.Value("Lumo::IpGenAddr", "10.0.0.1")),
    ("dstIp", rsvp.Value("Lumo::IpGenAddr", "::1"), rsvp.Value("Lumo::IpGenAddr", "::1")),
]


@pytest.mark.parametrize("attr,value,expected", WRITES)
def test_write_then_read(request_, attr, value, expected):
    request_[attr] = value
    got = request_[attr]
    assert got == expected and type(got) is type(expected)
    assert request_.get(attr) == expected


REQ = "Rsvp::RsvpCliTunnelRequest"
ERRORS = [
    ("nope", 1, rsvp.UnknownAttributeError, "No attribute 'nope' in " + REQ),
    ("version", "-1", rsvp.RangeError, "Expected a number but found '-1' (attribute 'version')"),
    ("version", 1 << 32, rsvp.RangeError, "Number 4294967296 out of range for U32 (attribute 'version')"),
    ("version", True, TypeError, "Attribute %s::version takes U32, not bool" % REQ),
    ("version", 1.0, TypeError, "Attribute %s::version takes U32, not float" % REQ),
    ("srcIp", 5, TypeError, "Attribute %s::srcIp takes Lumo::IpGenAddr, not int" % REQ),
    ("srcIp", rsvp.Value("U8", "1"), TypeError, "Attribute %s::srcIp takes Lumo::IpGenAddr, not U8" % REQ),
    ("srcIp", "10.0.0.300", rsvp.RangeError, None),
    ("tunnelReqId", REQ_ID % 5, rsvp.Error, "Attribute %s::tunnelReqId is immutable" % REQ),
    ("hop", "1", rsvp.Error, "Cannot apply 'hop=1': %s::hop takes hop[key]=value" % REQ),
]


@pytest.mark.parametrize("attr,value,error,message", ERRORS)
def test_bad_write_raises_and_changes_nothing(request_, attr, value, error, message):
    before = request_.browse()
    with pytest.raises(error) as e:
        request_[attr] = value
    if message is not None:
        assert str(e.value) == message
    assert request_.browse() == before


def test_unknown_attribute_read(request_):
    with pytest.raises(AttributeError, match=r"^No attribute 'x' in Rsvp::RsvpCliTunnelRequest$"):
        request_["x"]


def test_apply_uses_the_library_assignment(request_):
    request_.apply("hop[2]=10.0.0.9")
    assert request_["hop"][2] == rsvp.Value("Lumo::IpGenAddr", "10.0.0.9")
    with pytest.raises(rsvp.Error, match=r"^Bad assignment 'hop'; expected"):
        request_.apply("hop")
    with pytest.raises(rsvp.UnknownAttributeError, match=r"^No attribute 'hops' in Rsvp::RsvpCliTunnelRequest$"):
        request_.apply("hops[1]=10.0.0.1")


def test_attributes_in_declaration_order(request_):
    names = request_.attributes()
    assert names[0] == "tunnelReqId" and names.index("srcIp") < names.index("dstIp") < names.index("hop")
    assert request_.type == REQ and request_.name == REQ_ID % 4


def test_ordered_map_walk():
    req = rsvp.make(REQ, REQ_ID % 1)
    hops = req["hop"]
    for k in (5, 1, 3):
        hops[k] = "10.0.0.%d" % k
    assert list(hops) == [1, 3, 5] and len(hops) == 3
    assert [(k, str(v)) for k, v in hops.items()] == [(1, "10.0.0.1"), (3, "10.0.0.3"), (5, "10.0.0.5")]
    assert 3 in hops and 4 not in hops and hops.get(4) is None
    with pytest.raises(KeyError):
        hops[4]
    del hops[3]
    assert list(hops) == [1, 5]


def test_set_walk_follows_the_library_order():
    ids = rsvp.make("Rsvp::RsvpSpIdSet", "paths")
    for n in range(12):
        ids["spId"].add(SP.format(2 + n % 3, n))
    walked = ["[%s]" % k for k in ids["spId"]]
    # The state browser walks the set in C++; its lines give the order.
    browsed = [line.strip() for line in ids.browse().splitlines()[2:]]
    assert walked == browsed and len(walked) == 12


def test_map_of_entities_and_read_only_shared():
    status = rsvp.make("Rsvp::RsvpStatus", "status")
    table = status.create("spStateColl")
    sp = table["spState"].add(SP.format(2, 1), isBypass=True)
    assert sp["isBypass"] is True and sp.parent == table
    assert sp.full_name.endswith(SP.format(2, 1))
    with pytest.raises(rsvp.UnknownAttributeError, match="^No constructor argument 'up' in Rsvp::RsvpSpState$"):
        table["spState"].add(SP.format(2, 2), up=True)
    assert len(table["spState"]) == 1
    alone = rsvp.make("Rsvp::RsvpSpState", SP.format(3, 1), isBypass=True)
    assert alone["isBypass"] is True and alone.parent is None and str(alone["spId"]) == SP.format(3, 1)


def test_subscription_sees_changes():
    ids = rsvp.make("Rsvp::RsvpSpIdSet", "paths")
    heard = []
    sub = ids.subscribe(lambda e, attr, key: heard.append((e, attr, key)))
    ids["spId"].add(SP.format(2, 1))
    ids["spId"].discard(SP.format(2, 1))
    assert heard == [(ids, "spId", rsvp.Value("Rsvp::RsvpSpId", SP.format(2, 1)))] * 2
    sub.cancel()
    ids["spId"].add(SP.format(2, 2))
    assert len(heard) == 2 and not sub.active


def test_subscription_callback_errors_are_reported_not_raised(request_, monkeypatch):
    reported = []
    monkeypatch.setattr(sys, "unraisablehook", lambda u: reported.append(u.exc_value))

    def fail(*_):
        raise RuntimeError("boom")

    with request_.subscribe(fail):
        request_["version"] = 3
    assert request_["version"] == 3
    assert [str(e) for e in reported] == ["boom"]


def test_every_type_reads_and_refuses_what_no_attribute_takes():
    """Each entity type that can be made from nothing: every attribute reads
    (or raises the module's error) and a Python object that no attribute
    takes raises TypeError or rsvp.Error, changing nothing."""
    made = 0
    for type_name in rsvp.types():
        try:
            e = rsvp.make(type_name)
        except rsvp.Error:
            continue  # not an entity type, or one that needs a key
        made += 1
        before = e.browse()
        for attr in e.attributes():
            try:
                value = e[attr]
                if isinstance(value, rsvp.Collection):
                    assert len(value.items()) == len(value)
            except rsvp.Error as error:
                assert str(error).startswith("Cannot read ")
            with pytest.raises((TypeError, rsvp.Error)):
                e[attr] = object()
        assert e.browse() == before, type_name
    assert made > 50


COLLECTION_ERRORS = [
    (lambda h: h.__setitem__(1, 5), TypeError, "Attribute %s::hop takes Lumo::IpGenAddr, not int" % REQ),
    (lambda h: h.__setitem__(None, "10.0.0.1"), TypeError, "Attribute %s::hop key takes U32, not NoneType" % REQ),
    (lambda h: h.__setitem__("x", "10.0.0.1"), rsvp.RangeError, "Expected a number but found 'x' (attribute 'hop')"),
    (lambda h: h.add(1), rsvp.Error, "Cannot apply 'hop[1]': %s::hop takes hop[key]=value" % REQ),
    (lambda h: h.append("10.0.0.1"), rsvp.Error, "Cannot apply 'hop+=10.0.0.1': %s::hop takes hop[key]=value" % REQ),
    (lambda h: h.__delitem__(9), KeyError, "'9'"),
]


@pytest.mark.parametrize("change,error,message", COLLECTION_ERRORS)
def test_bad_collection_change_raises_and_changes_nothing(request_, change, error, message):
    request_["hop"][1] = "10.0.0.1"
    before = request_.browse()
    with pytest.raises(error) as e:
        change(request_["hop"])
    assert str(e.value) == message and request_.browse() == before

"""Values through their string forms: round trips for a table of types, and
the library's texts for text that does not parse."""
import pytest

import rsvp

SP_ID = "<sessionId=<dstIp=10.0.0.2>_<tunnelId=7>_<extTunnelId=10.0.0.1>>_<pathId=<lspId=3>>"

ROUND_TRIPS = [
    ("U8", "255"),
    ("S16", "-32768"),
    ("U64", "18446744073709551615"),
    ("bool", "true"),
    ("F64", "0.1"),
    ("F32", "1e+20"),
    ("Kel::Seconds", "2.5"),
    ("Kel::String", '"a \\"quoted\\" line\\n"'),
    ("Lumo::IpGenAddr", "10.0.0.1"),
    ("Lumo::IpGenAddr", "2001:db8::1"),
    ("Lumo::MplsLabel", "16"),
    ("Rsvp::RsvpSessionRole", "transitSessionRole"),
    ("Rsvp::RsvpPathId", "<lspId=3>"),
    ("Rsvp::RsvpSpId", SP_ID),
    ("Rsvp::RsvpTunnelRequestId", "Value('Rsvp::RsvpTunnelRequestId', ** {'reqId': 4, 'reqSubId': 1})"),
]


@pytest.mark.parametrize("type_name,text", ROUND_TRIPS)
def test_round_trip_through_text(type_name, text):
    v = rsvp.Value(type_name, text)
    assert v.type == type_name
    assert str(v) == text
    again = rsvp.Value(type_name, str(v))
    assert again == v and hash(again) == hash(v)
    assert eval(repr(v), {"rsvp": rsvp}) == v


def test_values_of_different_types_differ():
    assert rsvp.Value("U8", "1") != rsvp.Value("U16", "1")
    assert rsvp.Value("U8", "1") != 1
    assert rsvp.Value("U8", "1") < rsvp.Value("U8", "2")
    assert sorted({rsvp.Value("U8", "1"), rsvp.Value("U8", "1")}) == [rsvp.Value("U8", "1")]


BAD_TEXTS = [
    ("U8", "256", rsvp.RangeError, "Number 256 out of range for U8"),
    ("U8", "12x", rsvp.RangeError, "Invalid U8"),
    ("Lumo::IpGenAddr", "10.0.0", rsvp.RangeError, None),
    ("Rsvp::RsvpPathId", "<lspId=3", rsvp.RangeError, None),
    ("Rsvp::NoSuchType", "1", rsvp.Error, "No type 'Rsvp::NoSuchType'"),
    ("Rsvp::RsvpSpIdSet", "x", rsvp.Error, "Type Rsvp::RsvpSpIdSet has no value methods"),
]


@pytest.mark.parametrize("type_name,text,error,message", BAD_TEXTS)
def test_bad_text_raises_the_library_text(type_name, text, error, message):
    with pytest.raises(error) as e:
        rsvp.Value(type_name, text)
    if message is not None:
        assert str(e.value) == message
    assert "\n" not in str(e.value)


def test_range_error_is_a_value_error():
    assert issubclass(rsvp.RangeError, ValueError) and issubclass(rsvp.RangeError, rsvp.Error)
    assert issubclass(rsvp.UnknownAttributeError, AttributeError)

"""rsvp_browse given bad arguments: exactly one line on standard error, the
given exit status, nothing on standard output, never a crash."""
import subprocess
import sys
import unittest

TOOL = None
SP = "<sessionId=<dstIp=10.0.0.2>_<tunnelId=7>_<extTunnelId=10.0.0.1>>_<pathId=<lspId=3>>"
USAGE = ("usage: rsvp_browse <Type> [<name or key>] [attr=value | attr[key] | attr[key]=value"
         " | attr+=value ...] | rsvp_browse --types")
PATH = "Rsvp::RsvpPathMsg"
RESV = "Rsvp::RsvpResvMsg"

# (arguments, exit status, the one line after "rsvp_browse: ")
CASES = [
    ([], 2, USAGE),
    (["--types", "x"], 2, USAGE),
    (["Rsvp::Nothing"], 2, "No entity type 'Rsvp::Nothing' that can be made from a name"),
    (["Rsvp::Nothing\n" + "x" * 100000], 2,
     "No entity type 'Rsvp::Nothing?xxxxxxxxxx...' that can be made from a name"),
    # A reference, a queue of entities: no assignment reaches them.
    ([PATH, "m", "explicitRouteObj=x"], 1,
     "Cannot apply 'explicitRouteObj=x': Rsvp::RsvpPathMsg::explicitRouteObj takes no assignment"),
    ([PATH, "m", "unknownObj+=x"], 1,
     "Cannot apply 'unknownObj+=x': Rsvp::RsvpMsg::unknownObj takes no assignment"),
    ([PATH, "m", "unknownObj[1]=x"], 1,
     "Cannot apply 'unknownObj[1]=x': Rsvp::RsvpMsg::unknownObj takes no assignment"),
    ([PATH, "m", "unknownObj[1]"], 1,
     "Cannot apply 'unknownObj[1]': Rsvp::RsvpMsg::unknownObj takes no assignment"),
    # Fixed and derived attributes.
    ([PATH, "m", "msgType=rsvpPathMsg"], 1, "Attribute Rsvp::RsvpPathMsg::msgType is immutable"),
    (["Rsvp::RsvpRawData", "r", "size=1"], 1,
     "Cannot apply 'size=1': Rsvp::RsvpRawData::size takes no assignment"),
    # A queue of values, a map of entities, a set: the wrong form.
    ([RESV, "m", "msgIdAckObj[1]"], 1,
     "Cannot apply 'msgIdAckObj[1]': Rsvp::RsvpResvMsg::msgIdAckObj takes msgIdAckObj+=value"),
    ([RESV, "m", "flowDescriptor[1]=x"], 1,
     "Cannot apply 'flowDescriptor[1]=x': Rsvp::RsvpResvMsg::flowDescriptor takes "
     "flowDescriptor[key]"),
    (["Rsvp::RsvpSpIdSet", "p", "spId[" + SP + "]=true"], 1,
     "Cannot apply 'spId[<sessionId=<dstIp=1...': Rsvp::RsvpSpIdSet::spId takes spId[key]"),
    # Bad keys and values, bounded however long.
    (["Rsvp::RsvpSpIdSet", "paths", "spId[x]"], 1,
     "Expected '<sessionId=' but found 'x]' (attribute 'spId')"),
    ([RESV, "m", "flowDescriptor[" + "1" * 100000 + "]"], 1,
     "Number 111111111111111111111111... out of range for U32 (attribute 'flowDescriptor')"),
    ([PATH, "m", "a\nb"], 1,
     "Bad assignment 'a?b'; expected attr=value, attr[key], attr[key]=value or attr+=value"),
]


class BadArguments(unittest.TestCase):
    def test_each_bad_argument_ends_with_one_line_and_a_status(self):
        for args, status, line in CASES:
            with self.subTest(args=[a[:40] for a in args]):
                run = subprocess.run([TOOL] + args, capture_output=True, check=False)
                self.assertEqual(run.returncode, status, run.stderr[:200])
                self.assertEqual(run.stdout, b"")
                self.assertEqual(run.stderr.decode(), "rsvp_browse: " + line + "\n")


if __name__ == "__main__":
    TOOL = sys.argv.pop(1)
    unittest.main()

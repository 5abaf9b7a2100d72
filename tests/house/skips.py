"""Says how many tests of a run were skipped, which, and why: skips.py JUNIT_FILE."""
import sys
import xml.etree.ElementTree

cases = list(xml.etree.ElementTree.parse(sys.argv[1]).iter("testcase"))
skipped = [case for case in cases if case.get("status") in ("notrun", "disabled") or case.find("skipped") is not None]
print(f"{len(cases)} tests, {len(skipped)} skipped")
for case in skipped:
    said = [line.strip() for line in (case.findtext("system-out") or "").splitlines() if line.strip()]
    why = [line for line in said if "skip" in line.lower() and not line.startswith("[")] or said[-1:]
    print(f"  {case.get('name')}: {' '.join(why) or 'no reason given'}")

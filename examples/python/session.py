"""Works through a night at once: session.py NIGHT RESULTS."""

import sys

import korimg

plan = korimg.plan_run(sys.argv[1], out=sys.argv[2], gradient=True)
print(plan)

result = plan.run()
for frame in result.frames:
    print(f"{frame.file}: {frame.stars} stars, FWHM {frame.fwhm:.2f}, weight {frame.weight:.2f}, {frame.status}")
print("look at", *result.reports)

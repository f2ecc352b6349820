"""The demo, its port held by another engine, ends with a one-line reason and status 1 instead of
watching the other engine."""

import os

from testing.programs import BOUND

DEMO = os.path.join(os.path.dirname(os.path.abspath(__file__)), "demo.sh")


def test_a_taken_port_ends_the_demo_with_its_reason(engine, run):
    holder = engine()
    status, _, err = run(["bash", DEMO], timeout=BOUND * 6,
                         env=dict(os.environ, OVENGINE_PORT=str(holder.port)))
    assert (status, err.splitlines()[-1]) == (
        1, "demo: ovengine did not start: ovengine: cannot listen on 127.0.0.1:%d: address in use"
        % holder.port)

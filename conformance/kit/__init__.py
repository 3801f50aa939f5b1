"""The parts of the runner, conformance/run. Python 3.9, standard library only."""

"""What ends a case."""


class Failure(Exception):
    """The client under test did something wrong: the case fails, and the next one runs."""


class UsageError(Exception):
    """The runner was called in a wrong way, or one of its own files is wrong: no case runs."""

"""One stand-in per peer of the daemon; none shares code with it."""

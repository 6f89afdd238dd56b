"""A made-up machine in private namespaces, and the daemon under test inside it."""

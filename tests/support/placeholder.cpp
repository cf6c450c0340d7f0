// Keeps the support library non-empty on every configuration.

"""Tool handlers of the daemon; ``health`` is the native tool-health component."""

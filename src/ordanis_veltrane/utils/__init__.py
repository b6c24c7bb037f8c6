"""Daemon utilities used by the tool-health component."""

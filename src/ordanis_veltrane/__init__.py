"""ordanis_veltrane: the tool-health component and small stand-ins for the daemon around it."""

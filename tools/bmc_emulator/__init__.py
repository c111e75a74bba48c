"""Redfish controller emulator used to test the library against vendor-shaped services."""

"""Builds SMBIOS structure tables for emulated hosts and parser tests."""

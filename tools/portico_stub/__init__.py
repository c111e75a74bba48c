"""Stand-in for the host's local reverse proxy: nginx for the HTTP/2 data path,
a small Python server for the route-document endpoint."""

#pragma once

#include <string>

#include "bmc_reader.h"

// The credential's name under systemd's LoadCredential= and the file read
// when neither it nor --credentials-file is there.
constexpr char kCredentialName[] = "bmc-credentials";
constexpr char kCredentialsPath[] = "/etc/bmcredfish-exporter/credentials";

// $CREDENTIALS_DIRECTORY/bmc-credentials when systemd passed it, else the
// default path.
std::string DefaultCredentialsPath();

// Reads "user:password" (one line) from path, following symbolic links. The
// password must stay the service's own: refuses what is not a regular file
// (a FIFO without waiting for a writer), a file owned by another user than
// this process's or root, one that group or others may read, one larger than
// 4 KiB and one holding a NUL byte. error says which.
bool LoadCredentials(const std::string& path, Credentials& out, std::string& error);

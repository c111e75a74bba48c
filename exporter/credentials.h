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

// Reads "user:password" (one line) from path. Refuses what is not a regular
// file, and a file that group or others may read: the password must stay the
// service's own.
bool LoadCredentials(const std::string& path, Credentials& out, std::string& error);

/*
 * bmcredfish: the host's own BMC over Redfish, through the local proxy.
 *
 * Every function may be called from any thread. Strings are NUL-terminated
 * UTF-8. user and password are used only when the first call for a host
 * creates its connection; later calls for that host reuse it. A null host
 * means this host's own BMC ("localhost"), whose address comes from the SMBIOS
 * Redfish host-interface record.
 *
 * The library must be enabled by its hosting process first:
 *   FeatureState_Init(); *GetFeatureState_Slow("REDFISH") = 1;
 *
 * Exceptions (C++ callers): nothing a BMC, the proxy or its configuration
 * endpoint sends makes a function throw; a request target built from ids the
 * BMC chose that could leave the proxy's BMC route is refused unsent (10002,
 * with a level-3 log line). Only failures the caller or the process causes
 * leave as exceptions, and only from the four query functions below, when
 * their call creates the host's connection (the first for a host, or the next
 * after a failed one):
 *   - credentials too long to encode: 40004, thrown as the library's status
 *     enumeration (an integral type: catch (int) does not catch it, catch
 *     (...) does);
 *   - a null user or password: std::logic_error;
 * and from any function, std::bad_alloc when memory runs out, or
 * std::system_error when a mutex cannot be locked. Redfish_Initialize,
 * Redfish_CloseConnection and cleanup throw only the last two.
 *
 * Only what this header declares is supported API. The library also exports
 * the C++ classes redfish::BmcHttpConnection, BmcRedfishConnection and
 * BmcRedfishUtils because its design requires it; they are unsupported, their
 * headers are not installed, and they may change without a SONAME change.
 */
#ifndef BMCREDFISH_H
#define BMCREDFISH_H

#include <stdbool.h>
#include <stdint.h>

#include "bmcredfish_version.h"

#if defined(__GNUC__)
#define BMCREDFISH_API __attribute__((visibility("default")))
#else
#define BMCREDFISH_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Power commands, each sent as the Redfish ResetType named beside it. */
typedef enum REDFISHCMD {
  REDFISHCMD_ON = 0,                /* "On" */
  REDFISHCMD_FORCE_OFF = 1,         /* "ForceOff" */
  REDFISHCMD_FORCE_ON = 2,          /* "ForceOn" */
  REDFISHCMD_FORCE_RESTART = 3,     /* "ForceRestart" */
  REDFISHCMD_GRACEFUL_RESTART = 4,  /* "GracefulRestart" */
  REDFISHCMD_GRACEFUL_SHUTDOWN = 5, /* "GracefulShutdown" */
  REDFISHCMD_PUSH_POWER_BUTTON = 6, /* "PushPowerButton" */
  REDFISHCMD_NMI = 7,               /* "Nmi" */
  REDFISHCMD_POWER_CYCLE = 8        /* "PowerCycle" */
} REDFISHCMD;

/*
 * Result codes: name, value, and the one text each has (the CLI prints it and
 * the man page lists it). Besides these, any HTTP status other than 200 that
 * the BMC or the proxy answered is returned as it is (for example 204, 404,
 * 409, 503).
 */
#define BMCREDFISH_RESULT_CODES(X)                                                                \
  X(REDFISH_OK, 0, "success")                                                                     \
  X(REDFISH_FEATURE_DISABLED, 1, "the host switch \"REDFISH\" is off; nothing was done")          \
  X(REDFISH_UNKNOWN_VENDOR, 2, "the BMC's manufacturer is none of Dell, HPE, Lenovo")             \
  X(REDFISH_ERR_TLS_VERIFY, 10001, "TLS verification of the server failed")                       \
  X(REDFISH_ERR_INVALID_ARGUMENT, 10002, "the HTTP client refused an unsafe target or argument")  \
  X(REDFISH_ERR_TIMEOUT, 10003, "no answer within the time-out")                                  \
  X(REDFISH_ERR_SYSTEM, 10004, "a system error reaching the local proxy (connection refused...)") \
  X(REDFISH_ERR_TRANSPORT, 10005, "any other transport failure")                                  \
  X(REDFISH_ERR_ROUTE_DOCUMENT, 20001, "a document lacks a required value (route, ActionInfo)")   \
  X(REDFISH_ERR_BAD_JSON, 20002, "a response body is not well-formed JSON")                       \
  X(REDFISH_ERR_NO_MEMBERS, 20003, "a collection response has no \"Members\" array")              \
  X(REDFISH_ERR_UNEXPECTED_JSON, 20004, "a response body is not of the expected shape")           \
  X(REDFISH_ERR_NO_BMC_ADDRESS, 30001, "no BMC IPv4 address in the SMBIOS host-interface record") \
  X(REDFISH_ERR_NO_MEMBER, 40001, "no member at that index, or no BMC interface with that MAC")   \
  X(REDFISH_ERR_MAC_MISMATCH, 40002, "the BMC's MAC address is not the one the caller named")     \
  X(REDFISH_ERR_COMMAND_NOT_ALLOWED, 40003, "the system does not advertise that reset type")      \
  X(REDFISH_ERR_CREDENTIALS_ENCODING, 40004, "the credentials are too long to encode")            \
  X(REDFISH_ERR_UNAUTHORIZED, 40005, "the BMC refused the credentials (HTTP 401)")                \
  X(REDFISH_ERR_NO_ACTION_NEEDED, 40006, "the vendor's answer to a reset that needed no action")

enum {
#define BMCREDFISH_RESULT_ENUM_(name, value, text) name = value,
  BMCREDFISH_RESULT_CODES(BMCREDFISH_RESULT_ENUM_)
#undef BMCREDFISH_RESULT_ENUM_
};

/*
 * The host's named on/off switches, carried by the library for its hosting
 * process. FeatureState_Init builds the switch table once (safe to repeat, from
 * any thread). GetFeatureState_Slow returns the one-byte state of a switch
 * (non-zero = on), or null for an unknown name or before FeatureState_Init.
 */
BMCREDFISH_API void FeatureState_Init(void);
BMCREDFISH_API uint8_t* GetFeatureState_Slow(const char* name);

/*
 * Checks the "REDFISH" switch and creates the library's logger once.
 * Returns 0, or 1 when the switch is off (read afresh on every call). Every
 * query calls it first.
 */
BMCREDFISH_API int Redfish_Initialize(void);

/* Drops the connection of one host (null = "localhost"); unknown hosts are ignored. */
BMCREDFISH_API void Redfish_CloseConnection(const char* host);

/* Drops every connection. Also runs when the library is unloaded. */
BMCREDFISH_API void cleanup(void);

/*
 * The sensors of the BMC's first chassis with a sensor collection, as the
 * Redfish JSON text the BMC sent. When buffer and length are non-null the text
 * is copied with snprintf(buffer, *length, ...). On success *length (if length
 * is non-null) receives the text's full length WITHOUT the NUL: pass a null
 * buffer to learn it, then a buffer of one byte more. On failure nothing is
 * written. Returns 0 or a result code.
 */
BMCREDFISH_API int Redfish_GetSensorsInfo(const char* user, const char* password, const char* host,
                                          unsigned int timeoutMs, char* buffer,
                                          unsigned int* length);

/* *isOn (if non-null) becomes true exactly when the first system's PowerState is "On". */
BMCREDFISH_API int Redfish_GetPowerState(const char* user, const char* password, const char* host,
                                         unsigned int timeoutMs, bool* isOn);

/*
 * The MAC address of a BMC network interface, in the BMC's own notation.
 * With mac non-null: searches every manager for an interface with exactly that
 * text (40001 when there is none). With mac null: the last interface of the
 * first manager. On success, when length is non-null, n = min(*length, MAC
 * length + 1) bytes INCLUDING the NUL are written to buffer (if non-null) and
 * *length becomes n.
 */
BMCREDFISH_API int Redfish_GetMacAddress(const char* user, const char* password, const char* host,
                                         const char* mac, unsigned int timeoutMs, char* buffer,
                                         unsigned int* length);

/*
 * Sends a power command to the first system, but only when the BMC reached
 * through host has an interface with exactly the MAC address mac (required).
 * Returns 0 when the BMC answered 200 or 201; 40001 for a MAC the BMC does
 * not have (an empty mac is searched like any other), 40002 for a null mac or
 * when the search ends on a manager without interfaces (nothing sent); 40003
 * for a command the system does not advertise (nothing sent); 40006 for the
 * vendor's "no action needed" answer;
 * otherwise the BMC's HTTP status or another result code. Never sends twice.
 */
BMCREDFISH_API int Redfish_PowerOperation(const char* user, const char* password, const char* host,
                                          const char* mac, REDFISHCMD command,
                                          unsigned int timeoutMs);

/* ---- Since 1.1 ---------------------------------------------------------- */

/* Where a call failed: the links of the chain from the caller to the BMC. */
typedef enum RedfishLink {
  REDFISH_LINK_NONE = 0,            /* nothing failed */
  REDFISH_LINK_SWITCH = 1,          /* the host switch "REDFISH" */
  REDFISH_LINK_SMBIOS = 2,          /* the SMBIOS Redfish host-interface record */
  REDFISH_LINK_CONFIG_ENDPOINT = 3, /* the proxy's configuration endpoint, localhost:549 */
  REDFISH_LINK_ROUTE_DOCUMENT = 4,  /* the route document it serves */
  REDFISH_LINK_PROXY = 5,           /* the proxy on localhost:80 */
  REDFISH_LINK_BMC = 6,             /* the BMC behind the proxy (also when the proxy
                                       answers 502, 503 or 504 for it) */
  REDFISH_LINK_CREDENTIALS = 7,     /* the BMC account's credentials */
  REDFISH_LINK_DISCOVERY = 8,       /* what the BMC lists: systems, managers, chassis, maker */
  REDFISH_LINK_DOCUMENT = 9,        /* a BMC document not of the Redfish shape */
  REDFISH_LINK_GUARD = 10           /* the library refused: MAC guard, reset type, target */
} RedfishLink;

/*
 * A short lower-case word for each link, for logs and metrics, in value order:
 *   static const char* const labels[] = BMCREDFISH_LINK_LABELS; labels[link]
 */
#define BMCREDFISH_LINK_LABELS                                                       \
  {                                                                                  \
    "none", "switch", "smbios", "config-endpoint", "route-document", "proxy", "bmc", \
        "credentials", "discovery", "document", "guard"                              \
  }

/*
 * Why the calling thread's last call failed. Set the size member to
 * sizeof(RedfishFailure) before the call: a later version may append members,
 * and fills only what the caller's size holds. Texts are NUL-terminated and
 * cut to fit.
 */
typedef struct RedfishFailure {
  unsigned int size; /* in: sizeof(RedfishFailure) as the caller knows it */
  int result;        /* the call's result code (0: it succeeded) */
  RedfishLink link;  /* the link that broke (REDFISH_LINK_NONE on success) */
  int httpStatus;    /* the status of the failing answer; 0 when none arrived */
  char method[8];    /* the failing exchange's method ("GET", "POST", "PUT"); "" if none */
  char uri[256];     /* its target ("/bmc/redfish/v1/...", "/portico/config/json/bmcApi.json") */
  char detail[256];  /* who answered and what they said: the BMC's Redfish message, the
                        proxy's error page, the system's words for a transport failure */
} RedfishFailure;

/*
 * Fills *failure with the cause recorded by the calling thread's last call of
 * a function below that takes a host (the 1.0 queries and power operation
 * included). Each such call starts a fresh record, so a success reads as
 * result 0 and REDFISH_LINK_NONE. Returns 0, or 10002 when failure is null or
 * its size is smaller than the members up to and including link.
 */
BMCREDFISH_API int Redfish_GetLastFailure(RedfishFailure* failure);

/* Frees a text the library allocated for the caller; null is ignored. */
BMCREDFISH_API void Redfish_FreeText(char* text);

/*
 * Every chassis' sensor readings as one JSON document, whichever models the
 * BMC serves them in: its Sensors collections, ThermalSubsystem (ThermalMetrics,
 * Fans), PowerSubsystem (the power supplies' Metrics), EnvironmentMetrics and
 * the deprecated Thermal and Power. Each physical reading appears once, under
 * the chassis whose sensor it is: an excerpt naming a sensor by DataSourceUri
 * is that sensor, as is a Thermal or Power entry or a Fan bearing the Name or
 * Id of a sensor of its chassis; Thermal's temperatures and fans and Power's
 * supplies and PowerControl give way to the newer models where the chassis
 * has them. Chassis without readings are left out.
 *   {"Chassis":[{"Id":"1","@odata.id":"/redfish/v1/Chassis/1",
 *                "Sources":["Sensors","Power"],
 *                "PowerWatts":614,"PowerSource":"/redfish/v1/Chassis/1/Power#/PowerControl/0",
 *                "EnergyJoules":null,"EnergySource":"",
 *                "Sensors":[{"Id":"CPU1Temp","Name":"CPU1 Temp","Reading":41,
 *                            "ReadingUnits":"Cel","ReadingType":"Temperature",
 *                            "PhysicalContext":"CPU","Health":"OK","State":"Enabled",
 *                            "Thresholds":{"UpperCaution":null,"UpperCritical":99,
 *                                          "UpperFatal":null,"LowerCaution":null,
 *                                          "LowerCritical":3,"LowerFatal":null},
 *                            "DataSourceUri":"/redfish/v1/Chassis/1/Sensors/CPU1Temp"}]}]}
 * "Reading" and each threshold are a number or null; texts are the BMC's, or
 * "" where it gave none. A reading found in a property of Thermal, Power or an
 * excerpt has the units and ReadingType the property implies (LineInputVoltage:
 * "V", "Voltage"). "DataSourceUri" says where the BMC holds the reading: the
 * sensor's URI, else the document and JSON pointer it stands at; no two
 * readings share one. "PowerWatts" is the chassis' power figure in watts
 * (EnvironmentMetrics PowerWatts, else the first PowerControl's
 * PowerConsumedWatts), "EnergyJoules" its energy counter in joules
 * (EnvironmentMetrics EnergyJoules, else EnergykWh); "PowerSource" and
 * "EnergySource" name the reading each is ("" and null when there is none).
 * "Sources" lists the resources the chassis' readings came from.
 * A 1.1 read (see the block before Redfish_GetSystems): the first call walks
 * the chassis; later calls GET only the documents that gave the readings, one
 * per chassis where the BMC takes $expand, until one of them fails (the walk
 * is then made again at once) or an hour has passed. A document that cannot
 * be read or is not of the Redfish shape, a value of the wrong type and a
 * threshold without a reading are left out with a level-3 log line. The
 * document is valid UTF-8: each byte of the BMC's texts that is not becomes
 * U+FFFD. On 0, *json receives the document, to be freed with
 * Redfish_FreeText; on failure *json is set to null. Returns 0; 40001 when no
 * chassis has readings; when none could be read because a document failed,
 * that failure (its HTTP status, or 20004); or another result code.
 */
BMCREDFISH_API int Redfish_GetSensorReadings(const char* user, const char* password,
                                             const char* host, unsigned int timeoutMs, char** json);

/*
 * The reset types the first system advertises, as a bit mask over REDFISHCMD
 * (bit 1u << REDFISHCMD_ON, ...): what Redfish_PowerOperation would send, with
 * nothing sent. Returns 0, or a result code (*commands untouched).
 */
BMCREDFISH_API int Redfish_GetAllowedCommands(const char* user, const char* password,
                                              const char* host, unsigned int timeoutMs,
                                              unsigned int* commands);

/*
 * Reads one Redfish resource with GET: path is the resource's path on the BMC
 * ("/redfish/v1", "/redfish/v1/Systems/1"), with an optional query. Only paths
 * under "/redfish/v1" that are safe request targets are sent (10002
 * otherwise). On 0, *json receives the body, which is a JSON object, to be
 * freed with Redfish_FreeText; otherwise *json is null and the result is the
 * HTTP status or another result code (20002 for a body that is not JSON, 20004
 * for JSON that is not an object).
 */
BMCREDFISH_API int Redfish_GetResource(const char* user, const char* password, const char* host,
                                       const char* path, unsigned int timeoutMs, char** json);

/*
 * The version of the library that is loaded, "MAJOR.MINOR.PATCH", which may be
 * newer than the BMCREDFISH_VERSION_STRING the caller was compiled with. The
 * text is the library's own: never free or change it. Needs neither
 * FeatureState_Init nor the switch, sends nothing and keeps the failure record
 * as it is.
 */
BMCREDFISH_API const char* Redfish_GetVersion(void);

/*
 * The 1.1 reads below take the whole read's time-out: every request they make
 * gets what is left of timeoutMs (0 means 10000 ms), and a read that runs out
 * fails with 10003. They follow at most 4096 members of the BMC's
 * collections, whatever it lists, and say so in the failure record when that
 * stops them. They use Redfish query options only where the BMC's service
 * root advertises them, and send at most four requests at once. Each returns
 * one JSON document (valid UTF-8) in *json, to be freed with
 * Redfish_FreeText; on failure *json is null.
 */

/*
 * Every computer system's power state and status, whatever the BMC's maker:
 *   {"Systems":[{"Id":"1","@odata.id":"/redfish/v1/Systems/1","PowerState":"On",
 *                "Status":{"State":"Enabled","Health":"OK","HealthRollup":"OK"}}]}
 * Texts the BMC left out are "". A BMC without systems (a chassis manager)
 * gives {"Systems":[]} and 0. Once the systems are known, one request per
 * system.
 */
BMCREDFISH_API int Redfish_GetSystems(const char* user, const char* password, const char* host,
                                      unsigned int timeoutMs, char** json);

/*
 * The hardware's health with the failed parts named, as one JSON document:
 *   {"Health":"Critical",
 *    "Causes":[{"Kind":"Drive","Id":"Disk.0","Name":"Disk 0","Parent":"RAID.1",
 *               "@odata.id":"/redfish/v1/Systems/1/Storage/RAID.1/Drives/Disk.0",
 *               "Health":"Critical"}],
 *    "CausesLeftOut":0,
 *    "Systems":[{"Id":"1","@odata.id":"/redfish/v1/Systems/1","PowerState":"On",
 *                "Status":{"State":"Enabled","Health":"OK","HealthRollup":"OK"}}],
 *    "Chassis":[{"Id":"1","Name":"Chassis","@odata.id":"/redfish/v1/Chassis/1",
 *                "Status":{"State":"Enabled","Health":"OK","HealthRollup":""}}],
 *    "Parts":[{"Kind":"PowerSupply","Id":"PSU1","Name":"PS1","Parent":"1",
 *              "@odata.id":"...","State":"Enabled","Health":"OK"}],
 *    "Firmware":[{"Kind":"BMC","Id":"1","Name":"Manager","Version":"2.72",
 *                 "@odata.id":"/redfish/v1/Managers/1"}],
 *    "Read":{"At":1700000000,"PartsAt":1699999700,"FirmwareAt":1699998000,
 *            "Requests":2,"PartsLeftOut":0,"Gaps":[],"Watched":{...}}}
 * "Health" is the library's own rollup: the worst of the systems' and
 * chassis' Health and HealthRollup, every present part's Health and every
 * sensor's health in readings (OK < Warning < Critical; a Health Redfish
 * does not define counts as Warning; "" when nothing gives one). "Causes"
 * names what made it, worst first, at most 64: the parts and sensors that are
 * not OK ("Kind":"Sensor", "Parent" its chassis), and a system, chassis or
 * manager only where nothing read explains its health. Kinds: System,
 * Chassis, Manager (the BMC), PowerSupply, Fan, Memory, Processor,
 * StorageController, Drive, Volume, NetworkAdapter. "Parent" is the Id of the
 * system, chassis or storage holding the part (Ids repeat across storages). A
 * part whose State is "Absent" is listed, and is no failure. "Firmware": each
 * manager's ("BMC") and system's ("BIOS") version, then the update service's
 * inventory ("Inventory"). Texts are the BMC's, cut to 256 bytes.
 * Cost: each call reads each system (the request Redfish_GetSystems makes;
 * none when that call was made less than 5 s before: its read is used, once)
 * and the managers (one request where the BMC expands collections, else one
 * each). The parts are read again only when something watched changed since
 * previous: a Health or HealthRollup anywhere in a system (its Status, its
 * processor and memory summaries, a maker's aggregate under Oem), a manager's
 * Status, a sensor's health in readings; or when previous' parts are 10
 * minutes old. Otherwise previous' parts and chassis are kept ("PartsAt"
 * says when they were read). The inventory is read when a BMC or BIOS version
 * changed, or hourly. Each of the three reads sends at most 512 requests;
 * members left out are counted in "PartsLeftOut", reads the BMC failed (404
 * for a member, other statuses, bodies that are not JSON objects) listed in
 * "Gaps" (16 at most), each with a level-3 log line, and neither fails the
 * call.
 * previous: the document an earlier call returned for this host, or null; one
 *   this library did not write is ignored (level-3 log line).
 * readings: a document of Redfish_GetSensorReadings, or null: the sensors
 *   are then left out of the rollup and not watched.
 * Times are Unix seconds of the host's clock. Returns 0, or a result code
 * (10003 when the whole read ran out).
 */
BMCREDFISH_API int Redfish_GetHealth(const char* user, const char* password, const char* host,
                                     unsigned int timeoutMs, const char* previous,
                                     const char* readings, char** json);

/*
 * The entries of the BMC's event log newer than cursor, normalised, oldest
 * first, with the cursor to pass next time. The log is the one of the
 * LogServices of the BMC's systems and managers that holds the platform's
 * events (its SEL, event log or integrated management log), chosen by its
 * LogEntryType, LogPurposes, OverWritePolicy, Id and Name; a BMC without one
 * gives "Log":null and no entries (asked again after an hour).
 *   {"Log":{"@odata.id":"/redfish/v1/Managers/1/LogServices/Sel","Id":"Sel",
 *           "Name":"SEL Log Service","LogEntryType":"SEL",
 *           "OverWritePolicy":"WrapsWhenFull","MaxNumberOfRecords":1024,
 *           "Count":200,"Order":"NewestFirst"},
 *    "Entries":[{"Id":"199","Created":"2024-08-08T18:48:07-05:00",
 *                "Time":1723160887,"Severity":"Critical",
 *                "Message":"...","MessageId":"TMP0120",
 *                "OriginOfCondition":"","SensorNumber":48,"EntryCode":"Assert",
 *                "Kind":"Event","Resolved":true}],
 *    "Restarted":false,"More":false,"Missed":0,"Cursor":"..."}
 * "Time" is Created in seconds since the epoch, null when it is not an RFC
 * 3339 time. "Severity" is OK, Warning or Critical (anything else reads OK).
 * "Kind" is "Event", "Deassertion" (it ends a condition an earlier entry of
 * the same sensor or part and message asserted) or "LogCleared" (the BMC's
 * mark that its log was emptied). "Resolved" is true when the BMC says so or
 * a later deassertion in the document ends it; a deassertion that ends an
 * entry an earlier call returned carries "Resolves":{"Id","Created","Time",
 * "Severity"} of that entry. Texts are "" when absent, numbers null; the
 * message is cut at 1024 bytes, the other texts at 256.
 * cursor: the "Cursor" text of an earlier document (opaque; keep it as a
 * state), or null for every entry. It holds where the log is and how it is
 * listed, so a call with it that finds nothing new sends one request. A log
 * that was cleared, or wrapped past the last entry returned, is read again
 * from its start, its entries returned once, and "Restarted" is true.
 * Each call looks at most at 4096 entries and 128 pages: "More" says a bound
 * stopped it and the next call goes on from there (a log listed oldest
 * first); of a log listed newest first the newest are returned and "Missed"
 * says how many older new ones were not (null: some, how many not known).
 * Returns 0, 10002 for a cursor this library did not write (nothing sent),
 * or another result code.
 */
BMCREDFISH_API int Redfish_GetLogEntries(const char* user, const char* password, const char* host,
                                         unsigned int timeoutMs, const char* cursor, char** json);

#ifdef __cplusplus
}
#endif

#endif /* BMCREDFISH_H */

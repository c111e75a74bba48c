"""Redfish error bodies built from a subset of the DMTF Base message registry."""

# MessageKey -> (message with %1.. placeholders, severity, resolution)
BASE_MESSAGES = {
    "AccessDenied": (
        "While attempting to establish a connection to '%1', the service denied access.", "Critical",
        "Attempt to ensure that the URI is correct and that the service has the appropriate credentials."),
    "ResourceMissingAtURI": (
        "The resource at the URI '%1' was not found.", "Critical",
        "Place a valid resource at the URI or correct the URI and resubmit the request."),
    "OperationNotAllowed": (
        "The HTTP method is not allowed on this resource.", "Critical", "None."),
    "MalformedJSON": (
        "The request body submitted was malformed JSON and could not be parsed by the receiving service.",
        "Critical", "Ensure that the request body is valid JSON and resubmit the request."),
    "ActionParameterMissing": (
        "The action %1 requires the parameter %2 to be present in the request body.", "Critical",
        "Supply the action with the required parameter in the request body when the request is resubmitted."),
    "ActionParameterValueTypeError": (
        "The value '%1' for the parameter %2 in the action %3 is not a type that the parameter can accept.",
        "Warning", "Correct the value for the parameter in the request body and resubmit the request if the "
                   "operation failed."),
    "ActionParameterValueNotInList": (
        "The value '%1' for the parameter %2 in the action %3 is not in the list of acceptable values.",
        "Warning", "Choose a value from the enumeration list that the implementation can support and resubmit "
                   "the request if the operation failed."),
    "QueryParameterValueFormatError": (
        "The value '%1' for the parameter %2 is not a format that the parameter can accept.", "Warning",
        "Correct the value for the query parameter in the request and resubmit the request if the operation "
        "failed."),
    "QueryParameterUnsupported": (
        "Query parameter '%1' is not supported.", "Warning",
        "Correct or remove the query parameter and resubmit the request."),
    "QueryParameterOutOfRange": (
        "The value '%1' for the query parameter %2 is out of range %3.", "Warning",
        "Reduce the value for the query parameter to a value that is within range, such as a start or count "
        "value that is within bounds of the number of resources in a collection or a page number that is within "
        "the range of valid pages."),
    "QueryCombinationInvalid": (
        "Two or more query parameters in the request cannot be used together.", "Warning",
        "Remove one or more of the query parameters and resubmit the request if the operation failed."),
    "QueryNotSupportedOnResource": (
        "Querying is not supported on the requested resource.", "Warning",
        "Remove the query parameters and resubmit the request if the operation failed."),
    "ServiceTemporarilyUnavailable": (
        "The service is temporarily unavailable.  Retry in %1 seconds.", "Critical",
        "Wait for the indicated retry duration and retry the operation."),
    "InternalError": (
        "The request failed due to an internal service error.  The service is still operational.", "Critical",
        "Resubmit the request.  If the problem persists, consider resetting the service."),
    "GeneralError": (
        "A general error has occurred.  See Resolution for information on how to resolve the error, or "
        "@Message.ExtendedInfo if Resolution is not provided.", "Critical", "None."),
    "Success": ("The request completed successfully.", "OK", "None."),
}

# Default message for a bare status code (used by status faults and protocol errors).
STATUS_MESSAGES = {
    401: "AccessDenied",
    404: "ResourceMissingAtURI",
    405: "OperationNotAllowed",
    500: "InternalError",
    503: "ServiceTemporarilyUnavailable",
}


def message(registry, key, args=()):
    text, severity, resolution = BASE_MESSAGES[key]
    args = [str(a) for a in args]
    for i, arg in enumerate(args, 1):
        text = text.replace("%%%d" % i, arg)
    return {
        "@odata.type": "#Message.v1_1_1.Message",
        "MessageId": "%s.%s" % (registry, key),
        "Message": text,
        "MessageArgs": args,
        "MessageSeverity": severity,
        "Severity": severity,
        "Resolution": resolution,
    }


def error_body(registry, key, args=()):
    msg = message(registry, key, args)
    return {"error": {"code": msg["MessageId"], "message": msg["Message"], "@Message.ExtendedInfo": [msg]}}


def status_error_body(registry, status, uri):
    key = STATUS_MESSAGES.get(status, "GeneralError")
    if key in ("AccessDenied", "ResourceMissingAtURI"):
        args = [uri]
    elif key == "ServiceTemporarilyUnavailable":
        args = ["1"]
    else:
        args = []
    return error_body(registry, key, args)

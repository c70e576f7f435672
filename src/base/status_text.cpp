#include "base/status_text.hpp"

// The texts of the statuses. Every status is its own case, so that a value carrying a known number
// under another origin or severity is not mistaken for it and falls to the text of its origin.
// Compiled to a jump or a binary search: no look-up allocates or can fail.

namespace
{

const char * origin_text(zlk_error_t error) noexcept
{
    switch (error & 0xF0000000u)
    {
    case 0xA0000000u:
        return "An error occurred in the zelkoria protocol.";
    case 0xB0000000u:
        return "The database operation failed.";
    case 0xC0000000u:
        return "An argument is invalid for this function call.";
    case 0xD0000000u:
        return "An error occurred in the network connection.";
    case 0xE0000000u:
        return "A system error occurred on local host.";
    case 0xF0000000u:
        return "A system error occurred on remote host.";
    default:
        return "An unknown error occurred.";
    }
}

} // namespace

namespace zlk
{

const char * status_text(zlk_error_t error) noexcept
{
    switch (error)
    {
    case 0x00000000u:
        return "The operation completed successfully.";
    case 0xC300FFFFu:
        return "Uninitialized error variable.";
    case 0xE3000001u:
        return "A local system error occurred.";
    case 0xF3000001u:
        return "A remote system error occurred";
    case 0xE3000002u:
        return "A local internal error occurred.";
    case 0xF3000002u:
        return "A remote internal error occurred.";
    case 0xE3000003u:
        return "Insufficient memory is available locally to complete the operation.";
    case 0xF3000003u:
        return "Insufficient memory is available remotely to complete the operation.";
    case 0xA3000004u:
        return "The remote host protocol mismatches the client API protocol.";
    case 0xD2000005u:
        return "The remote host cannot be resolved.";
    case 0xB1000008u:
        return "An entry matching the provided alias cannot be found.";
    case 0xB1000009u:
        return "An entry matching the provided alias already exists.";
    case 0xD200000Au:
        return "The operation timed out.";
    case 0xC100000Bu:
        return "The provided buffer is too small.";
    case 0xD300000Eu:
        return "Connection refused.";
    case 0xD200000Fu:
        return "Connection reset by peer.";
    case 0xF3000011u:
        return "The requested operation is not yet available.";
    case 0xD2000012u:
        return "The cluster is unstable. Please try again later.";
    case 0xA3000016u:
        return "The remote host and Client API versions mismatch.";
    case 0xD2000017u:
        return "A temporary error occurred. Please try again.";
    case 0xC2000018u:
        return "The argument is invalid.";
    case 0xC1000019u:
        return "The given index was out of bounds.";
    case 0xB200001Au:
        return "The operation has been aborted as it conflicts with another ongoing operation.";
    case 0xD200001Bu:
        return "The handle is not connected.";
    case 0xC200001Cu:
        return "The handle is invalid.";
    case 0xC200001Du:
        return "The alias or prefix is reserved.";
    case 0xB000001Eu:
        return "The content does not match.";
    case 0xC200001Fu:
        return "The iterator is invalid";
    case 0xB1000021u:
        return "This operation has been skipped because of an error that occurred in another operation.";
    case 0xB1000022u:
        return "The entry has a type incompatible with this operation.";
    case 0xB1000023u:
        return "The entry contains an empty container.";
    case 0xB1000024u:
        return "The container is full.";
    case 0xB0000025u:
        return "The entry does not contain the given element.";
    case 0xB0000026u:
        return "The entry already contains the given element.";
    case 0xB1000027u:
        return "The operation provokes overflow.";
    case 0xB1000028u:
        return "The operation provokes underflow.";
    case 0xB0000029u:
        return "The entry is already marked with the provided tag.";
    case 0xB000002Au:
        return "The entry is not marked with the provided tag.";
    case 0xC200002Bu:
        return "The entry is larger than the allowed limit on the remote node.";
    case 0xB200002Cu:
        return "An unrecoverable error occurred while committing or rollbacking the transaction.";
    case 0xB200002Du:
        return "The entry is currently locked by another client.";
    case 0xB200002Eu:
        return "The requested operation cannot be performed because it has been disabled.";
    case 0xB200002Fu:
        return "The requested operation cannot be performed because it is not permitted in the current "
               "state.";
    case 0xB0000030u:
        return "The iterator reached the end of the collection.";
    case 0xA3000031u:
        return "Invalid reply from the remote host.";
    case 0xB0000032u:
        return "The operation completed successfully. A new entry has been created.";
    case 0xF3000033u:
        return "No space left on device.";
    case 0xF3000034u:
        return "Zelkoria disk quota exceeded.";
    case 0xC2000035u:
        return "The alias or prefix is too long.";
    case 0xF2000036u:
        return "A clock skew is preventing the operation from completing successfully.";
    case 0xB2000037u:
        return "Access to the entry has been denied.";
    case 0xF2000038u:
        return "Login failed for the user.";
    case 0xB1000039u:
        return "The timeseries does not contain this column.";
    case 0xB2000040u:
        return "The query has been refused as it would result in excessive server load.";
    case 0xC2000041u:
        return "The provided cryptographic key is invalid.";
    case 0xC2000042u:
        return "The provided query is invalid.";
    case 0xC2000043u:
        return "The regular expression is not valid.";
    case 0xC2000044u:
        return "Unknown user.";
    case 0xF2000045u:
        return "The operation has been interrupted.";
    case 0xE2000046u:
        return "The network input buffer is too small to complete the operation.";
    case 0xD2000047u:
        return "A network error occurred.";
    default:
        return origin_text(error);
    }
}

} // namespace zlk

#pragma once

namespace vnlog {

/** Why lines that should have been stored are not in the store. */
enum class Loss {
    Refused, ///< there was no space in the ring and draining failed
    StorageFull, ///< storing was given up because the medium was full
    TooLong, ///< longer than the ring
    Dropped, ///< buffered, and thrown away by a stop
    Unread, ///< the driver dropped them before they were read
};

} // namespace vnlog

# Debian's libphonenumber-dev ships neither a CMake package nor a pkg-config
# file, so the library and headers are located by hand.
find_path(PhoneNumber_INCLUDE_DIR phonenumbers/phonenumberutil.h)
find_library(PhoneNumber_LIBRARY NAMES phonenumber)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(PhoneNumber REQUIRED_VARS PhoneNumber_LIBRARY PhoneNumber_INCLUDE_DIR)
if(PhoneNumber_FOUND AND NOT TARGET PhoneNumber::PhoneNumber)
    add_library(PhoneNumber::PhoneNumber UNKNOWN IMPORTED)
    set_target_properties(PhoneNumber::PhoneNumber PROPERTIES
        IMPORTED_LOCATION "${PhoneNumber_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${PhoneNumber_INCLUDE_DIR}")
endif()
mark_as_advanced(PhoneNumber_INCLUDE_DIR PhoneNumber_LIBRARY)

# Programs for another processor: bin/ holds scripts under the programs' own names that run them in the emulator, so that tests
# start them as they start any other. In a private root bin/ is seen elsewhere, therefore the scripts look beside themselves.
if(CMAKE_CROSSCOMPILING_EMULATOR)
    set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin/target)
    string(REPLACE ${CMAKE_BINARY_DIR}/bin "\"$bin\"" emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
    list(JOIN emulator " " emulator)
    foreach(program celmuxd celmux ubusd ubus uci modemsim)
        file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/bin/${program} CONTENT
            "#!/bin/sh\nbin=\${0%/*}\nexec @emulator@ -0 ${program} \"$bin/target/${program}\" \"$@\"\n" @ONLY)
        file(CHMOD ${CMAKE_BINARY_DIR}/bin/${program} PERMISSIONS
            OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
    endforeach()
endif()

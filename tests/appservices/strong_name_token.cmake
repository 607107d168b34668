# The expected strong-name token of a public-key blob, worked out on the build machine with tools that
# share nothing with the code under test: perl turns the committed hex text into the blob's bytes, and
# sha1sum hashes them. The token is the last eight bytes of the digest, in reverse order.
#   cmake -DHEX=<key.hex> -DBIN=<out blob> -DTOKEN=<out token text> -P strong_name_token.cmake
file(READ ${HEX} hex)
string(REGEX REPLACE "[^0-9a-fA-F]" "" hex "${hex}")
execute_process(COMMAND perl -e "binmode STDOUT; print pack('H*', \$ARGV[0])" ${hex}
    OUTPUT_FILE ${BIN} RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "perl could not write ${BIN}")
endif()
execute_process(COMMAND sha1sum -b ${BIN} OUTPUT_VARIABLE digest RESULT_VARIABLE status)
if(NOT status EQUAL 0 OR NOT digest MATCHES "^([0-9a-f]+) ")
    message(FATAL_ERROR "sha1sum failed on ${BIN}")
endif()
string(SUBSTRING "${CMAKE_MATCH_1}" 24 16 tail)
set(token "")
foreach(at RANGE 14 0 -2)
    string(SUBSTRING "${tail}" ${at} 2 byte)
    string(APPEND token ${byte})
endforeach()
file(WRITE ${TOKEN} "${token}\n")

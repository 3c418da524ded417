# SPDX-License-Identifier: MIT
# The pages with which the web server answers errors of its own, one file for each status.
set(error_pages ${CMAKE_CURRENT_BINARY_DIR}/errors)
function(add_error_page status title text)
  configure_file(error.html.in ${error_pages}/${status}.html @ONLY NEWLINE_STYLE UNIX)
endfunction()

add_error_page(400 "Request not understood" "The request is not valid HTTP.")
add_error_page(403 "Not permitted"
  "This page cannot be opened, or not under this name of the router. Use the router's own address.")
add_error_page(404 "Page not found" "The router has no page of this name.")
add_error_page(408 "Request interrupted" "The request did not arrive completely in time. Try again.")
add_error_page(411 "Length missing" "The request does not say how much data it contains.")
add_error_page(413 "Too much data"
  "The request is too large for this page. A firmware image can have at most 16 MiB.")
add_error_page(414 "Address too long" "The address of this page is too long.")
add_error_page(417 "Request not supported" "The request expects something that the router cannot do.")
add_error_page(431 "Request too large"
  "The browser sent too much besides the page's address. Delete the cookies of this router and try again.")
add_error_page(500 "Page failed" "The page could not be prepared. Try again, or restart the router.")
add_error_page(501 "Request not supported" "The router does not know this kind of request.")
add_error_page(503 "Too busy" "The router is busy. Try again in a few seconds.")
add_error_page(505 "Request not supported" "The router does not know this version of HTTP.")

install(DIRECTORY ${error_pages}/ DESTINATION www/errors COMPONENT device EXCLUDE_FROM_ALL)

// Asio and Beast are compiled once, here, instead of in every unit that includes them.
#include <boost/asio/impl/src.hpp>
#include <boost/asio/ssl/impl/src.hpp>
#include <boost/beast/src.hpp>

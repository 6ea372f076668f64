#pragma once

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include <QByteArray>

inline QByteArray toByteArray(boost::beast::string_view text)
{
    return QByteArray(text.data(), static_cast<int>(text.size()));
}

using HttpRequest = boost::beast::http::request<boost::beast::http::string_body>;
using HttpResponseHead = boost::beast::http::response_header<>;

#pragma once

/// Ends the relay where it runs as a service, beside this as one, so that systemd starts it anew; false where it does
/// not.
bool endRelay();

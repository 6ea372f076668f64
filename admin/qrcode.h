#pragma once

#include <QByteArray>

/// A QR code (ISO/IEC 18004) of this text as lines for a terminal, in UTF-8: each character is two of its squares, one
/// above the other. `isForTerminal`: in black on white, whatever the terminal's own colours; else without colours, for
/// dark letters on light paper. Empty where the text is too long for one.
QByteArray toQrCode(const QByteArray &text, bool isForTerminal);

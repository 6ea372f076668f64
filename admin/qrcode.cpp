// Draws what a telephone can read from the screen.

#include "admin/qrcode.h"

#include <qrencode.h>

#include <array>
#include <memory>

namespace
{
constexpr int quietZone = 4; // squares around it that must be light, for a reader to find it
constexpr std::array<const char *, 4> squares{" ", "\u2584", "\u2580", "\u2588"}; // none, lower, upper, both
constexpr char blackOnWhite[] = "\x1b[38;5;16;48;5;231m"; // of the colours that no terminal's theme changes
constexpr char usualColours[] = "\x1b[0m";
} // namespace

QByteArray toQrCode(const QByteArray &text, bool isForTerminal)
{
    // The lowest level: a screen has no stains, and a smaller code has larger squares.
    const std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
        QRcode_encodeData(text.size(), reinterpret_cast<const unsigned char *>(text.constData()), 0, QR_ECLEVEL_L),
        QRcode_free);
    if (!code)
        return QByteArray();
    const auto isDark = [&code](int column, int row) {
        const bool isInside = column >= 0 && column < code->width && row >= 0 && row < code->width;
        return isInside && (code->data[row * code->width + column] & 1U) != 0;
    };
    QByteArray lines;
    for (int row = -quietZone; row < code->width + quietZone; row += 2) {
        lines += isForTerminal ? blackOnWhite : "";
        for (int column = -quietZone; column < code->width + quietZone; column++) {
            const auto upper = isDark(column, row) ? 2U : 0U;
            const auto lower = isDark(column, row + 1) ? 1U : 0U;
            lines += squares.at(upper | lower);
        }
        lines += isForTerminal ? usualColours : "";
        lines += '\n';
    }
    return lines;
}

# SPDX-License-Identifier: Apache-2.0
# Prints a log of 2,000 entries in the threadtime form, the same one every time: every priority, tags of one to
# forty characters, empty, long and odd texts, equal and crossing stamps, many processes.
function pick(n) { seed = (seed * 1103515245 + 12345) % 2147483648; return int(seed / 65536) % n }
function word(length_, letters, text, i) {
    text = ""
    for (i = 0; i < length_; i++) text = text substr(letters, pick(length(letters)) + 1, 1)
    return text
}
BEGIN {
    seed = 20260317
    plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.-"
    odd = plain " \t%$\\\"'`<>&|;*?[]{}~#!=+,:/()\303\251"
    ms = 0
    for (n = 0; n < 2000; n++) {
        kind = pick(10)
        if (kind < 6) ms += pick(40)          # later
        else if (kind == 6 && ms > 50) ms -= pick(50) # crossing; the others are equal
        tag = word(1 + pick(40), plain)
        kind = pick(10)
        if (kind == 0) text = ""
        else if (kind == 1) text = word(600 + pick(3000), odd)
        else text = word(1 + pick(80), odd)
        s = int(ms / 1000)
        printf "%02d-%02d %02d:%02d:%02d.%03d %5d %5d %s %-8s: %s\n", 3, 17, 16 + int(s / 3600) , int(s / 60) % 60,
            s % 60, ms % 1000, 1 + pick(400) * 100, 1 + pick(32768), substr("VDIWEF", 1 + pick(6), 1), tag, text
    }
}

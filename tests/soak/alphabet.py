"""Bytes that tell who sent them and in which order, however the texts of several connections mix on one console."""

SENDERS = 8
SYMBOLS = 16  # for each sender, used in turn, so that a byte that is lost, doubled or moved is noticed
FIRST = 0x80  # from here on: the product's own texts have none of these

_TURNS = [bytes(range(FIRST + SYMBOLS * sender, FIRST + SYMBOLS * (sender + 1))) for sender in range(SENDERS)]
_OTHERS = [bytes(byte for byte in range(256) if byte not in turn) for turn in _TURNS]
_PLAIN = bytes(range(FIRST))
_MARKED = bytes(range(FIRST, 256))


def piece(sender, start, length):
    """What a sender sends after its first `start` bytes."""
    turn = _TURNS[sender]
    offset = start % SYMBOLS
    return (turn * ((offset + length) // SYMBOLS + 1))[offset:offset + length]


def plain(text):
    """The text without anybody's bytes."""
    return text.translate(None, _MARKED)


class Tally:
    """How many bytes of each sender have been shown, and whether in the order in which they were sent."""

    def __init__(self):
        self.shown = [0] * SENDERS
        self.disordered = 0

    def add(self, text):
        marked = text.translate(None, _PLAIN)
        if not marked:
            return
        for sender in range(SENDERS):
            own = marked.translate(None, _OTHERS[sender])
            if own:
                self.disordered += own != piece(sender, self.shown[sender], len(own))
                self.shown[sender] += len(own)

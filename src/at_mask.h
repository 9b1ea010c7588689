// Keeps PINs, PUKs and passwords out of the log.
#pragma once

#include <cstdint>
#include <string_view>

// Where a text that comes in pieces stands; `{}` at its start. Holds no secret.
struct SecretScan {
    char name[10];       // letters since the last "+" or "$", blanks left out
    uint8_t name_length; // of `name`, and the sign in front; 0 outside a name
    bool inside;         // behind the sign of a command with a secret
    bool answer;         // it was a ":"
    bool quoted;
    uint8_t to_come; // parameters before the first secret one
};

// A text to log: `text` itself when it carries no secret, otherwise a copy in which every character of the secrets is a
// "*". Secrets are the codes of AT+CPIN=, AT+CLCK=, AT+CPWD= (3GPP TS 27.007 8.3, 7.4, 7.5), the password of AT+CGAUTH=
// (10.1.31) and of its answer, password and user of AT$QCPDPP= and of its answer, wherever they stand in the text and
// whatever blanks are between (V.250 5.2.1). With `scan` the text goes on where the one before it, masked with the same
// scan, ended. Any thread.
struct Masked {
    explicit Masked(std::string_view text, SecretScan *scan = nullptr);
    ~Masked();
    Masked(const Masked &) = delete;
    Masked &operator=(const Masked &) = delete;

    const char *text; // "(masked)" when there is no memory for the copy; terminated if the original is
    int length;

private:
    char *copy;
};

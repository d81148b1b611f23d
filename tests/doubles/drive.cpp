/*
 * drive.cpp - the drive double; see drive.h.
 */
#include "doubles/drive.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <linux/hdreg.h>

namespace kovtest::drive {
namespace {

constexpr size_t kMaxData = 516;  // the largest argument logged: HDIO_DRIVE_CMD's
constexpr int kMaxAnswers = 16;
constexpr int kMaxLog = 64;
constexpr int kMaxFds = 8;
constexpr unsigned long kSecurityFirst = 0x350, kSecurityLast = 0x352;

struct Entry {
    unsigned long request;
    unsigned char data[kMaxData];
    size_t size, at;
    int result;
    bool answered;
    int refuse_err, refuse_times;  // times: 0 none left, -1 for ever
};

struct Logged {
    unsigned long request;
    const void *arg;
    unsigned char bytes[kMaxData];
    size_t nbytes;
    unsigned char data[kMaxData];
    size_t ndata;
    sg_io_hdr_t sg;
};

char attached[PATH_MAX];
int fds[kMaxFds];
int nfds;
Entry table[kMaxAnswers];
int nentries;
Logged logged[kMaxLog];
int nlogged;
unsigned char sg_status;
unsigned short sg_host, sg_driver;

Entry *Find(unsigned long request, bool create)
{
    for (int i = 0; i < nentries; i++)
        if (table[i].request == request)
            return &table[i];
    if (!create || nentries == kMaxAnswers)
        return nullptr;
    Entry *e = &table[nentries++];
    memset(e, 0, sizeof *e);
    e->request = request;
    return e;
}

void Copy(unsigned char *to, size_t *n, const void *from, size_t size)
{
    *n = size < kMaxData ? size : kMaxData;
    if (from != nullptr)
        memcpy(to, from, *n);
    else
        *n = 0;
}

void Log(unsigned long request, void *arg)
{
    if (nlogged == kMaxLog)
        return;
    Logged &l = logged[nlogged++];
    memset(&l, 0, sizeof l);
    l.request = request;
    l.arg = arg;
    if (arg == nullptr)
        return;
    if (request >= kSecurityFirst && request <= kSecurityLast) {
        Copy(l.bytes, &l.nbytes, arg, 512);
    } else if (request == HDIO_DRIVE_CMD) {
        Copy(l.bytes, &l.nbytes, arg, 516);
    } else if (request == SG_IO) {
        memcpy(&l.sg, arg, sizeof l.sg);
        Copy(l.bytes, &l.nbytes, l.sg.cmdp, l.sg.cmd_len);
        Copy(l.data, &l.ndata, l.sg.dxferp, l.sg.dxfer_len);
    }
}

} // namespace

void Attach(const char *path)
{
    attached[0] = '\0';
    if (path != nullptr && strlen(path) < sizeof attached)
        strcpy(attached, path);
    nfds = 0;
    nentries = 0;
    nlogged = 0;
    SgStatus(0);
}

void Answer(unsigned long request, const void *data, size_t size, size_t at, int result)
{
    Entry *e = Find(request, true);
    if (e == nullptr || at + size > kMaxData)
        return;
    e->answered = true;
    e->size = data != nullptr ? size : 0;
    e->at = at;
    e->result = result;
    if (e->size != 0)
        memcpy(e->data, data, size);
}

void Refuse(unsigned long request, int err, int times)
{
    if (Entry *e = Find(request, true)) {
        e->refuse_err = err;
        e->refuse_times = times;
    }
}

void SgStatus(unsigned char status, unsigned short host, unsigned short driver)
{
    sg_status = status;
    sg_host = host;
    sg_driver = driver;
}

int Count() { return nlogged; }
unsigned long Request(int i) { return i < nlogged ? logged[i].request : 0; }
const void *Arg(int i) { return i < nlogged ? logged[i].arg : nullptr; }

std::string Bytes(int i)
{
    if (i >= nlogged)
        return "";
    return std::string(reinterpret_cast<const char *>(logged[i].bytes), logged[i].nbytes);
}

std::string Data(int i)
{
    if (i >= nlogged)
        return "";
    return std::string(reinterpret_cast<const char *>(logged[i].data), logged[i].ndata);
}

sg_io_hdr_t SgHeader(int i)
{
    sg_io_hdr_t none = {};
    return i < nlogged ? logged[i].sg : none;
}

int Open() { return nfds; }

void Opened(const char *path, int fd)
{
    if (attached[0] != '\0' && path != nullptr && strcmp(path, attached) == 0 && nfds < kMaxFds)
        fds[nfds++] = fd;
}

void Closed(int fd)
{
    for (int i = 0; i < nfds; i++) {
        if (fds[i] == fd) {
            fds[i] = fds[--nfds];
            return;
        }
    }
}

bool Owns(int fd)
{
    for (int i = 0; i < nfds; i++)
        if (fds[i] == fd)
            return true;
    return false;
}

int Ioctl(unsigned long request, void *arg)
{
    Log(request, arg);
    Entry *e = Find(request, false);
    if (e != nullptr && e->refuse_times != 0) {
        if (e->refuse_times > 0)
            e->refuse_times--;
        errno = e->refuse_err;
        return -1;
    }
    if (e == nullptr || !e->answered) {
        errno = ENOTTY;
        return -1;
    }
    if (e->size != 0 && arg != nullptr)
        memcpy(static_cast<unsigned char *>(arg) + e->at, e->data, e->size);
    if (request == SG_IO && arg != nullptr) {
        sg_io_hdr_t *io = static_cast<sg_io_hdr_t *>(arg);
        io->status = sg_status;
        io->masked_status = static_cast<unsigned char>(sg_status >> 1 & 0x7F);
        io->host_status = sg_host;
        io->driver_status = sg_driver;
    }
    return e->result;
}

} // namespace kovtest::drive

// hello-go: a small web server of another vendor, in Go. It acquires 127.0.0.1:80 and [::1]:80
// from the local domain listener helper through the installed SDK (cgo and pkg-config), first
// thing in main, then serves one page on both until it is stopped.
//
//	hello-go [--socket PATH]
//
// Build with `go build` (the Go standard library only), sign with ld-codesign, install
// set-group-ID to a group of its own: docs/vendor-guide.md.
package main

/*
#cgo pkg-config: quillfern-local-domain-listener
#include <stdlib.h>
#include <quillfern/local_domain_listener.h>
*/
import "C"

import (
	"fmt"
	"net"
	"net/http"
	"os"
	"unsafe"
)

// acquire asks the helper for both listeners. The Go runtime has started threads by now; they
// are all glibc threads in a cgo program, so the group is given up in every one of them.
func acquire(socketPath string) (ipv4, ipv6 net.Listener, err error) {
	var path *C.char
	if socketPath != "" {
		path = C.CString(socketPath)
		defer C.free(unsafe.Pointer(path))
	}
	var fd4, fd6 C.int
	message := make([]byte, 1024)
	code := C.ld_acquire_listeners(path, &fd4, &fd6, (*C.char)(unsafe.Pointer(&message[0])), C.size_t(len(message)))
	if code != C.LD_ACQUIRE_OK {
		return nil, nil, fmt.Errorf("%s (code %d)", C.GoString((*C.char)(unsafe.Pointer(&message[0]))), int(code))
	}
	file4, file6 := os.NewFile(uintptr(fd4), "127.0.0.1:80"), os.NewFile(uintptr(fd6), "[::1]:80")
	defer file4.Close() // net.FileListener keeps a duplicate of its own
	defer file6.Close()
	if ipv4, err = net.FileListener(file4); err != nil {
		return nil, nil, err
	}
	if ipv6, err = net.FileListener(file6); err != nil {
		ipv4.Close()
		return nil, nil, err
	}
	return ipv4, ipv6, nil
}

func main() {
	socketPath := ""
	if len(os.Args) == 3 && os.Args[1] == "--socket" {
		socketPath = os.Args[2]
	}
	ipv4, ipv6, err := acquire(socketPath)
	if err != nil {
		fmt.Fprintf(os.Stderr, "hello-go: %v\n", err)
		os.Exit(1)
	}
	page := func(where string) http.Handler {
		return http.HandlerFunc(func(w http.ResponseWriter, r *http.Request) {
			fmt.Fprintf(w, "Hello from hello-go on %s\n", where)
		})
	}
	fmt.Println("hello-go: serving http://127.0.0.1/ and http://[::1]/")
	go func() { fmt.Fprintln(os.Stderr, http.Serve(ipv6, page("[::1]:80"))) }()
	fmt.Fprintln(os.Stderr, http.Serve(ipv4, page("127.0.0.1:80")))
	os.Exit(1)
}

// hello-rust: a small web server of another vendor, in Rust with the standard library alone. It
// acquires 127.0.0.1:80 and [::1]:80 from the local domain listener helper through the SDK's C
// interface, first thing in main, then serves one page on both until it is stopped.
//
//   hello-rust [--socket PATH]
//
// Build with the Makefile (rustc and pkg-config, no crates), sign with ld-codesign, install
// set-group-ID to a group of its own: docs/vendor-guide.md.
use std::ffi::{CStr, CString};
use std::io::{Read, Write};
use std::net::TcpListener;
use std::os::raw::{c_char, c_int};
use std::os::unix::io::FromRawFd;
use std::thread;

// From <quillfern/local_domain_listener.h>.
const LD_ACQUIRE_OK: c_int = 0;
const LD_ACQUIRE_MESSAGE_SIZE: usize = 4096;
extern "C" {
    fn ld_acquire_listeners(
        socket_path: *const c_char,
        ipv4: *mut c_int,
        ipv6: *mut c_int,
        message: *mut c_char,
        message_size: usize,
    ) -> c_int;
}

fn serve(listener: TcpListener, place: &'static str) -> thread::JoinHandle<()> {
    thread::spawn(move || {
        for mut client in listener.incoming().flatten() {
            let mut request = [0u8; 4096];
            let _ = client.read(&mut request);
            let body = format!("Hello from hello-rust on {}\n", place);
            let _ = write!(
                client,
                "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: {}\r\nConnection: close\r\n\r\n{}",
                body.len(),
                body
            );
        }
    })
}

fn main() {
    // Before anything else (no thread, no toolkit): afterwards the set-group-ID group is gone,
    // success or not.
    let arguments: Vec<String> = std::env::args().collect();
    let socket = match arguments.as_slice() {
        [_, flag, path] if flag == "--socket" => Some(CString::new(path.as_str()).expect("a path without NUL")),
        _ => None,
    };
    let (mut ipv4, mut ipv6): (c_int, c_int) = (-1, -1);
    let mut message = vec![0 as c_char; LD_ACQUIRE_MESSAGE_SIZE];
    let code = unsafe {
        ld_acquire_listeners(
            socket.as_ref().map_or(std::ptr::null(), |path| path.as_ptr()),
            &mut ipv4,
            &mut ipv6,
            message.as_mut_ptr(),
            message.len(),
        )
    };
    if code != LD_ACQUIRE_OK {
        let text = unsafe { CStr::from_ptr(message.as_ptr()) }.to_string_lossy();
        eprintln!("hello-rust: {} (code {})", text, code);
        std::process::exit(1);
    }
    println!("hello-rust: serving http://127.0.0.1/ and http://[::1]/");
    let _ = std::io::stdout().flush();
    // Both descriptors are ours now: listening, close-on-exec, checked by the library.
    let servers = [
        serve(unsafe { TcpListener::from_raw_fd(ipv4) }, "127.0.0.1:80"),
        serve(unsafe { TcpListener::from_raw_fd(ipv6) }, "[::1]:80"),
    ];
    for server in servers {
        let _ = server.join();
    }
}

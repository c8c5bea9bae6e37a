module example.invalid/hello-go

go 1.19

% image = to_image(kspace)   centred inverse transform along the first three dimensions
function image = to_image(kspace)
  image = kspace;
  for d = 1:min(ndims(kspace), 3)
    image = fftshift(ifft(ifftshift(image, d), [], d), d);
  end
end
